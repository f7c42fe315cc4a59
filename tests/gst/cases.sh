#!/usr/bin/env bash
# vrxsink and vrxsrc as users run them: gst-launch-1.0 pipelines next to the tools, real
# processes, files and sockets.
#   cases.sh CASE TOOLS_DIR TIME_PROVIDER PLUGIN_DIR
# Cases that compare samples exactly use the pipeline data channel, which loses no frame to a
# busy machine; only frames at the start may be missing (see same_samples).
case_name=$1 bin=$2 time_provider=$3
export GST_PLUGIN_PATH=$4 GST_REGISTRY=$PWD/registry.bin # the build's own, in the test directory
source "$(dirname "${BASH_SOURCE[0]}")/../cli/lib.sh"

# launch NAME PIPELINE...: gst-launch-1.0 in the background, stderr into NAME.err, pid in $last_pid.
launch() {
    local name=$1
    shift
    gst-launch-1.0 -q "$@" 2>"$name.err" &
    last_pid=$!
    pids+=("$last_pid")
}

# counter FILE SECONDS: a 48 kHz mono S24BE ramp, each sample one more than the one before.
counter() { perl -e 'print substr(pack("N", $_), 1, 3) for 0 .. 48000 * $ARGV[0] - 1' "$2" >"$1"; }

# counter_breaks FILE: where the ramp in FILE jumps, one "sample: value -> value" line each.
counter_breaks() {
    perl -e 'local $/; my @v = unpack("N*", join("", map { "\0$_" } unpack("(a3)*", <STDIN>)));
             for my $i (1 .. $#v) { print "$i: $v[$i - 1] -> $v[$i]\n" if $v[$i] != $v[$i - 1] + 1 }' <"$1"
}

# What audiotestsrc makes reaches vrx-recv unchanged, in real time.
audiotestsrc_to_vrx_recv() {
    local addr caps=audio/x-raw,format=S16LE,rate=48000,channels=2 tone="audiotestsrc num-buffers=100 samplesperbuffer=480"
    addr=$(address sink)
    # shellcheck disable=SC2086 # the elements are words
    gst-launch-1.0 -q $tone ! $caps ! filesink location=in.raw
    start recv vrx-recv --stdout --exit-with-sender "$addr" >out.raw
    # shellcheck disable=SC2086
    timeout 60 gst-launch-1.0 -q $tone ! $caps ! vrxsink address="$addr" protocol=pipeline 2>sink.err ||
        fail "the producing pipeline failed: $(cat sink.err)"
    finish "$last_pid"
    [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
    grep -q "raw samples, 48000 Hz, 2 channels, S16LE" recv.err || fail "not the pipeline's format: $(cat recv.err)"
    same_samples in.raw out.raw 4
}

# What vrx-send sends reaches a file unchanged through vrxsrc, raw or through the README's WAV
# pipeline; exit-on-sender-gone ends the pipeline when the sender is gone.
vrx_send_to_vrxsrc() {
    local name format rate channels frame_bytes sox_options tail
    while IFS='|' read -r name format rate channels frame_bytes sox_options tail; do
        local addr
        addr=$(address "src-$name")
        # shellcheck disable=SC2086 # the sox options are words
        sox -n -r "$rate" -c "$channels" -t raw $sox_options "in-$name.raw" synth 1 whitenoise vol 0.5
        # shellcheck disable=SC2086 # and so are the elements
        launch "src-$name" vrxsrc address="$addr" exit-on-sender-gone=true ! $tail
        timeout 60 "$bin/vrx-send" --stdin --rate "$rate" --channels "$channels" --format "$format" \
            --wait-receiver --frame-ms 250 --protocol pipeline "$addr" <"in-$name.raw" 2>send.err
        finish "$last_pid"
        [ "$status" -eq 0 ] || fail "$name: the consuming pipeline exited with $status: $(cat "src-$name.err")"
        [ "$name" = raw ] || sox -V1 "out-$name.wav" -t raw -e signed-integer -b 16 -L "out-$name.raw"
        same_samples "in-$name.raw" "out-$name.raw" "$frame_bytes"
    done <<'ROWS'
raw|S24BE|44100|1|3|-e signed-integer -b 24 -B|filesink location=out-raw.raw
wav|S16LE|48000|2|4|-e signed-integer -b 16 -L|audioconvert ! wavenc ! filesink location=out-wav.wav
ROWS
}

# The README's recipe between two hosts, both halves on loopback, both following one time
# server (1000 s ahead of this host's monotonic clock): vrx-send feeds host A's vrxsrc, which
# sends RTP to host B, whose vrxsink serves vrx-recv. The ramp arrives intact after its start
# (the start may lose what A's pipeline receives while it changes to the stream's clock), and
# vrx-recv sees B's timestamps on the server's clock, 0 to 250 ms before it gets the frames.
between_hosts() {
    local port rtp_port mic mic_b latency
    mic=$(address mic) mic_b=$(address mic-b)
    rtp_port=$(perl -MIO::Socket::INET -e 'print IO::Socket::INET->new(Proto => "udp", LocalAddr => "127.0.0.1")->sockport')
    coproc provider { "$time_provider"; }
    pids+=("$provider_PID")
    read -r port <&"${provider[0]}"
    counter in.raw 4
    launch host-b udpsrc port="$rtp_port" \
        caps="application/x-rtp,media=audio,clock-rate=48000,encoding-name=L24,channels=1,payload=96" ! \
        rtpjitterbuffer latency=50 ! rtpL24depay ! \
        vrxsink address="$mic_b" time-server="127.0.0.1:$port" protocol=pipeline
    # Host B listens before host A sends: RTP sent to nobody is gone.
    wait_for "host B's sender" "$bin/vrx-probe" --timeout 1 "$mic_b" >/dev/null
    start recv vrx-recv --stdout --duration 2 "$mic_b" >out.raw
    local recv=$last_pid
    launch host-a vrxsrc address="$mic" exit-on-sender-gone=true ! audioconvert ! rtpL24pay ! \
        udpsink host=127.0.0.1 port="$rtp_port"
    timeout 60 "$bin/vrx-send" --stdin --rate 48000 --channels 1 --format S24BE --wait-receiver \
        --time-server "127.0.0.1:$port" --protocol pipeline "$mic" <in.raw 2>send.err
    for _ in $(seq 600); do ended "$recv" && break; sleep 0.05; done
    ended "$recv" || fail "vrx-recv got no 2 s of stream: $(cat recv.err send.err host-a.err host-b.err)"
    finish "$recv"
    [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err host-a.err host-b.err)"

    counter_breaks out.raw >breaks.txt
    [ "$(stat -c %s out.raw)" -ge $((2 * 48000 * 3 * 9 / 10)) ] || fail "only $(stat -c %s out.raw) bytes arrived"
    ! awk -F: '$1 > 24000' breaks.txt | grep -q . || fail "the ramp breaks after its first 0.5 s: $(cat breaks.txt)"
    latency=$(sed -n -E 's/.*latency +p50 (-?[0-9.]+) ms, p99 (-?[0-9.]+) ms.*synced net clock.*/\1 \2/p' recv.err)
    [ -n "$latency" ] || fail "no latency on the synced net clock: $(cat recv.err)"
    awk -v p50="${latency% *}" -v p99="${latency#* }" 'BEGIN { exit !(p50 >= 0 && p99 <= 250) }' ||
        fail "B's timestamps are not 0 to 250 ms before vrx-recv gets them: $(cat recv.err)"
}

"$case_name"
