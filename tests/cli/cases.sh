#!/usr/bin/env bash
# The command-line tools run as a user runs them: real processes, files, pipes and sockets.
#   cases.sh CASE TOOLS_DIR TIME_PROVIDER
# TIME_PROVIDER is the GStreamer network time provider test peer (prints its port, serves
# until nobody reads its standard output).
#
# By design the data channel holds about 4 KB: a publish/subscribe sender drops what does not
# fit, a pipeline sender waits (vrx-send gives up after two frames). Cases that compare samples
# exactly leave a busy machine time to read each frame: publish/subscribe with 100 ms frames of
# at most 2 KB (two fit when a late sender catches up), pipeline with 250 ms frames.
case_name=$1 bin=$2 time_provider=$3
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# A file sent with --file arrives with the same samples in the same format over either data
# channel protocol; only frames at the start may be missing.
file_roundtrip() {
    local protocol frame_ms rate channels bits encoding sox_encoding
    while read -r protocol frame_ms rate channels bits encoding sox_encoding; do
        local addr in=in-$protocol-$bits.wav out=out-$protocol-$bits.wav
        addr=$(address "file-$protocol-$bits")
        sox -n -r "$rate" -c "$channels" -b "$bits" -e "$sox_encoding" "$in" synth 1.5 whitenoise vol 0.5
        start recv vrx-recv --exit-with-sender --out "$out" "$addr"
        timeout 60 "$bin/vrx-send" --wait-receiver --frame-ms "$frame_ms" --protocol "$protocol" --file "$in" "$addr" 2>send.err
        finish "$last_pid"
        [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
        has_format "$out" "$rate" "$channels" "$bits" "$encoding"
        to_raw "$in" && to_raw "$out"
        same_samples "$in.raw" "$out.raw" $((channels * bits / 8))
    done <<'ROWS'
pubsub   100 8000  1 16 Signed   signed-integer
pipeline 250 44100 2 16 Signed   signed-integer
pipeline 250 48000 1 24 Signed   signed-integer
pipeline 250 32000 2 32 Floating floating-point
ROWS
}

# sox | vrx-send --stdin and vrx-recv --stdout carry samples unchanged in any format (given by
# our name or ALSA's): raw, or in an AU stream whose header says what they are.
stdin_stdout() {
    local format name type rate channels frame_bytes sox_options
    while read -r format name type rate channels frame_bytes sox_options; do
        local addr
        addr=$(address "stdin-$format")
        # shellcheck disable=SC2086 # the sox options are words
        sox -n -r "$rate" -c "$channels" -t raw $sox_options "in-$format.raw" synth 1 whitenoise vol 0.5
        start recv vrx-recv --stdout-type "$type" --exit-with-sender "$addr" >"out-$format.raw"
        cat "in-$format.raw" | timeout 60 "$bin/vrx-send" --stdin --rate "$rate" --channels "$channels" \
            --format "$name" --wait-receiver --frame-ms 250 --protocol pipeline "$addr" 2>send.err
        finish "$last_pid"
        [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
        grep -q "writing standard output as .*, $rate Hz, $channels channels\{0,1\}, $format$" recv.err ||
            fail "no format note: $(cat recv.err)"
        # shellcheck disable=SC2086
        [ "$type" = raw ] || sox -V1 -t au - -t raw $sox_options - <"out-$format.raw" >"out-$format.au.raw"
        same_samples "in-$format.raw" "out-$format$([ "$type" = raw ] || echo .au).raw" "$frame_bytes"
    done <<'ROWS'
S16LE S16_LE   raw 48000 2 4 -e signed-integer -b 16 -L
S24BE s24_3be  au  44100 1 3 -e signed-integer -b 24 -B
U8    U8       au  8000  2 2 -e unsigned-integer -b 8
F32BE FLOAT_BE raw 16000 1 4 -e floating-point -b 32 -B
ROWS
}

# A change of format starts a new sequence, which vrx-recv writes into a new numbered file.
format_change() {
    local addr
    addr=$(address files)
    sox -n -r 48000 -c 2 -b 16 a.wav synth 0.5 whitenoise vol 0.5
    sox -n -r 22050 -c 1 -b 24 b.wav synth 0.5 whitenoise vol 0.5
    start recv vrx-recv --exit-with-sender --out out.wav "$addr"
    timeout 60 "$bin/vrx-send" --wait-receiver --frame-ms 250 --protocol pipeline --file a.wav --file b.wav "$addr" 2>send.err
    finish "$last_pid"
    [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
    has_format out.wav 48000 2 16 Signed
    has_format out-1.wav 22050 1 24 Signed
    [ ! -e out-2.wav ] || fail "a third file for two formats"
    to_raw a.wav && to_raw b.wav && to_raw out.wav && to_raw out-1.wav
    same_samples a.wav.raw out.wav.raw 4
    cmp b.wav.raw out-1.wav.raw || fail "the second file lost samples"

    # The tone alternates S16LE and F32LE every 0.1 s.
    addr=$(address reformat)
    start send vrx-send --reformat-every 0.1 "$addr"
    timeout 60 "$bin/vrx-recv" --frames 25 --out tone.wav "$addr" 2>recv.err
    [ -e tone-1.wav ] || fail "one file for two formats: $(cat recv.err)"
    [ "$(soxi -V1 -e tone.wav)" != "$(soxi -V1 -e tone-1.wav)" ] || fail "tone.wav and tone-1.wav have one encoding"

    # Standard output ends at a change of format (exit 3) with what its reader was told, whole
    # frames of the first format only, unless --follow-format lets it go on.
    local code options message
    while IFS='|' read -r code options message; do
        status=0
        # shellcheck disable=SC2086 # the options are words
        timeout 60 "$bin/vrx-recv" $options "$addr" >out.bin 2>recv.err || status=$?
        [ "$status" -eq "$code" ] && grep -q "$message" recv.err || fail "$options: exit $status, $(cat recv.err)"
        [ "$code" -eq 3 ] || continue
        # At most 0.1 s of stereo S16LE or F32LE (as F32LE when it came with a header).
        if [ "$options" = --stdout ]; then cp out.bin out.raw; else sox -V1 -t au - -t f32 - <out.bin >out.raw; fi
        local size
        size=$(stat -c %s out.raw)
        [ $((size % 4)) -eq 0 ] && [ "$size" -le 38400 ] ||
            fail "$options: $size bytes on standard output, more than 0.1 s of one format: $(cat recv.err)"
    done <<'ROWS'
3|--stdout|standard output ends here, since its reader would misread the new samples (--follow-format goes on)
0|--stdout --follow-format --frames 25|standard output continues in
3|--stdout-type au|standard output ends here
ROWS
}

# vrx-probe prints the sender's greeting and stream format, and fails cleanly without one.
# vrx-probe --list: the live senders, one line each, one moved to its alternative address
# (vrx-send says so); a killed sender's directory stays, and is not listed.
list_senders() {
    local a b killed dir record
    a=$(address a) b=$(address b) killed=$(address killed)
    start a vrx-send --rate 44100 --channels 1 "$a"
    wait_for "the first sender" grep -q "streaming at '$a'" a.err
    start b vrx-send --protocol pipeline --alternative-address "$b" "$a"
    start killed vrx-send "$killed"
    wait_for "the last senders" eval 'grep -q "streaming at the alternative address '"'$b'; another sender holds '$a'"'" b.err && grep -q streaming killed.err'
    kill -9 "$last_pid"
    [ "$(ls "$TMPDIR" | wc -l)" -eq 3 ] || fail "not three senders' directories: $(ls "$TMPDIR")"
    # Neither a link to a sender's directory, nor a record whose process number is another's by
    # now, nor one that holds no greeting makes a sender appear.
    record=$(grep -l "^pid ${pids[0]}$" "$TMPDIR"/VrxSender-*/sender.record)
    for dir in "$TMPDIR"/VrxSender-*; do ln -s "$dir" "$dir-link"; done
    mkdir "$TMPDIR"/VrxSender-{reused,garbled}
    sed "s/^pid .*/pid $$/" "$record" >"$TMPDIR/VrxSender-reused/sender.record"
    sed "s/^greeting .*/greeting 00/" "$record" >"$TMPDIR/VrxSender-garbled/sender.record"
    start recv vrx-recv --out take.wav "$a"
    wait_for "a receiver" eval '"$bin/vrx-probe" --list >list.txt && grep -q "1 receiver$" list.txt'
    diff <(sed -E 's/pid [0-9]+/pid P/' list.txt) - <<LIST || fail "vrx-probe --list said: $(cat list.txt)"
'$a'  pid P  user $(id -un)  pubsub  sysclock  44100 Hz, 1 channels, S16LE  1 receiver
'$b'  pid P  user $(id -un)  pipeline  sysclock  48000 Hz, 2 channels, S16LE  0 receivers
LIST
    "$bin/vrx-probe" --list --json >list.json
    [ "$(grep -c '"pid":' list.json)" -eq 2 ] && grep -q "\"address\": \"$b\"" list.json ||
        fail "vrx-probe --list --json said: $(cat list.json)"
}

probe() {
    local addr field
    addr=$(address probe)
    start send vrx-send --rate 44100 --channels 1 --format S24LE "$addr"
    wait_for "the sender's first sequence" eval '"$bin/vrx-probe" "$addr" >probe.json && grep -q sequenceNr probe.json'
    for field in '"version": 1' '"timeSyncProtocol": "sysclock"' '"timeSyncPort": 0' \
        '"nanomsgProtocol": "pubsub"' "\"nanomsgUri\": \"ipc://$TMPDIR/VrxSender-" \
        '"fourcc": "PCMA"' '"sampleRate": 44100' '"numChannels": 1' '"sampleFormat": "S24LE"'; do
        grep -qF "$field" probe.json || fail "no $field in $(cat probe.json)"
    done
    # 2 when a probe came before the first sequence, which vrx-send then announces again.
    grep -E -q '"sequenceNr": [12],' probe.json || fail "no sequence 1 or 2 in $(cat probe.json)"

    status=0
    timeout 60 "$bin/vrx-probe" --timeout 0.2 "$(address nobody)" >none.out 2>none.err || status=$?
    [ "$status" -eq 1 ] && [ ! -s none.out ] && grep -q "no sender answers at" none.err ||
        fail "probe without a sender: exit $status, $(cat none.out none.err)"

    # A network clock: announced, and frame timestamps on it (the server runs 1000 s ahead).
    coproc provider { "$time_provider"; }
    pids+=("$provider_PID")
    local port
    read -r port <&"${provider[0]}"
    addr=$(address netclock)
    start send vrx-send --time-server "127.0.0.1:$port" --protocol pipeline "$addr"
    wait_for "the sender on the network clock" eval '"$bin/vrx-probe" "$addr" >probe.json && grep -q sequenceNr probe.json'
    for field in '"timeSyncProtocol": "gstnetclock"' '"timeSyncIPAddress": "127.0.0.1"' \
        "\"timeSyncPort\": $port" '"nanomsgProtocol": "pipeline"'; do
        grep -qF "$field" probe.json || fail "no $field in $(cat probe.json)"
    done
    timeout 60 "$bin/vrx-recv" --frames 50 "$addr" 2>recv.err
    grep -E -q "latency +p50 -?[0-9]{1,3}\.[0-9]+ ms.*synced net clock" recv.err ||
        fail "latency on the network clock is not that of a live stream: $(cat recv.err)"
}

# Bad arguments: one line, exit 2, nothing created under TMPDIR (not even TMPDIR itself).
bad_arguments() {
    local long code tool args message
    long=$(printf 'x%.0s' {1..108})
    echo "not audio" >not-audio.wav
    while IFS='|' read -r code tool args message; do
        eval "set -- $args"
        status=0
        timeout 60 "$bin/$tool" "$@" >out.txt 2>err.txt || status=$?
        [ "$status" -eq "$code" ] || fail "$tool $args: exit $status, not $code: $(cat err.txt)"
        if [ "$code" -eq 0 ]; then
            grep -qF -- "$message" out.txt || fail "$tool $args: no '$message' in the help"
        else
            [ "$(wc -l <err.txt)" -eq 1 ] && grep -qF -- "$message" err.txt ||
                fail "$tool $args: not one line with '$message': $(cat err.txt)"
        fi
        [ ! -e "$TMPDIR" ] && [ -z "$(find . -name 'capture.*')" ] || fail "$tool $args left $TMPDIR or a file behind"
    done <<ROWS
2|vrx-send||ADDRESS is required
2|vrx-send|--format S17LE a|--format: unknown sample format 'S17LE'
2|vrx-send|--rate 0 a|--rate: must be a whole number from 1 to 768000, not '0'
2|vrx-send|--channels 256 a|--channels: must be a whole number from 1 to 255
2|vrx-send|--file missing.wav a|cannot read 'missing.wav'
2|vrx-send|--file not-audio.wav a|cannot read 'not-audio.wav'
2|vrx-send|--file a.wav --stdin a|--file excludes --stdin
2|vrx-send|--time-server 127.0.0.1 a|--time-server: expected IP:PORT
2|vrx-send|--protocol tcp a|--protocol: must be pubsub or pipeline
2|vrx-send|$long|ADDRESS: too long (108 bytes)
2|vrx-send|--log-level loud a|--log-level: must be trace, debug, info, warn or error
2|vrx-send|--log-config missing.properties a|--log-config: cannot read 'missing.properties'
2|vrx-recv|--out capture.xyz a|cannot tell a file format from 'capture.xyz'
2|vrx-recv|--out missing/capture.wav a|--out: cannot write 'missing/capture.wav': No such file or directory
2|vrx-recv|--out not-audio.wav/capture.wav a|--out: cannot write 'not-audio.wav/capture.wav': Not a directory
2|vrx-recv|--out capture.ogg a|--out: OGG, Vorbis is lossy and does not keep every sample (--lossy accepts that)
2|vrx-recv|--out capture.mp3 a|--out: MPEG-1/2 Audio
2|vrx-recv|--stdout-type wav a|--stdout-type: libsndfile cannot write WAV to a pipe
2|vrx-recv|--follow-format a|--follow-format goes with raw standard output
2|vrx-recv|--out a.wav --stdout a|--out excludes --stdout
2|vrx-recv|--duration 0 a|--duration: must be a positive number
2|vrx-recv|$long|ADDRESS: too long (108 bytes)
2|vrx-probe|--timeout -1 a|--timeout: must be a positive number
2|vrx-probe|--allow group:no-such-group a|--allow: must be user, group:NAME of an existing group, or everyone, not 'group:no-such-group'
2|vrx-probe|$long|ADDRESS: too long (108 bytes)
0|vrx-send|--help|Examples:
0|vrx-recv|--help|Examples:
0|vrx-probe|--help|Examples:
0|vrx-send|--version|vrx-send $VRX_VERSION
0|vrx-recv|--version a|vrx-recv $VRX_VERSION
0|vrx-probe|--version|vrx-probe $VRX_VERSION
1|vrx-probe|--timeout 0.05 \$'a\\n\\x1b[2Jb'|no sender answers at 'a\\n\\x1b[2Jb'
ROWS

    # An address in use: the second sender says so and leaves no directory of its own.
    local addr
    addr=$(address taken)
    start first vrx-send "$addr"
    wait_for "the first sender" eval '"$bin/vrx-probe" "$addr" >/dev/null'
    status=0
    timeout 60 "$bin/vrx-send" "$addr" 2>second.err || status=$?
    [ "$status" -eq 1 ] && grep -q "another sender already listens at '$addr'" second.err ||
        fail "second sender: exit $status, $(cat second.err)"
    [ "$(find "$TMPDIR" -mindepth 1 -maxdepth 1 | wc -l)" -eq 1 ] || fail "$(ls "$TMPDIR") under TMPDIR"
}

# Every sample is kept in a file of the format the extension names (wider where it must be), or
# the stream is refused in one line before the file is made, unless --lossy accepts less.
lossless_or_refused() {
    local format code options file bits encoding note
    for format in S32LE F32LE S24BE; do start "send-$format" vrx-send --format "$format" "$(address "$format")"; done
    while IFS='|' read -r format code options file bits encoding note; do
        status=0
        # shellcheck disable=SC2086 # the options are words
        timeout 60 "$bin/vrx-recv" --frames 5 $options --out "$file" "$(address "$format")" 2>recv.err || status=$?
        [ "$status" -eq "$code" ] && grep -qF "$note" recv.err || fail "$format $file: exit $status, $(cat recv.err)"
        if [ "$code" -ne 0 ]; then
            # One line of vrx-recv's own (the library may log a reconnection while a sender starts).
            [ "$(grep -c -v '^vrx-recv: \[Voraxis' recv.err)" -eq 1 ] && [ ! -e "$file" ] ||
                fail "$format $file: refused as $(cat recv.err)"
        elif [ -n "$bits" ]; then
            has_format "$file" 48000 2 "$bits" "$encoding"
        fi
    done <<'ROWS'
S32LE|1||a.flac|||cannot keep every sample of 48000 Hz, 2 channels, S32LE in FLAC ('a.flac'); .wav keeps them, and --lossy accepts FLAC, Signed 24 bit PCM
F32LE|1||b.flac|||cannot keep every sample of 48000 Hz, 2 channels, F32LE in FLAC
S32LE|0|--lossy|c.flac|24|FLAC|writing 'c.flac' as FLAC, Signed 24 bit PCM (lossy), 48000 Hz, 2 channels, S32LE
S32LE|0|--lossy|d.mp3|||(lossy), 48000 Hz, 2 channels, S32LE
S32LE|0||e.wav|32|Signed|writing 'e.wav' as WAV, Signed 32 bit PCM, 48000 Hz, 2 channels, S32LE
F32LE|0||f.caf|32|Floating|writing 'f.caf' as CAF, 32 bit float, 48000 Hz, 2 channels, F32LE
S24BE|0||g.flac|24|FLAC|writing 'g.flac' as FLAC, Signed 24 bit PCM, 48000 Hz, 2 channels, S24BE
ROWS
}

# A sender that restarts after a pause leaves a gap that the summary counts with what it lost;
# --fill-gaps writes silence for it, so that a recording of --duration 3 (stream time) lasts 3 s.
sender_restart_gap() {
    local addr lost samples
    addr=$(address restart)
    start recv vrx-recv --duration 3 --fill-gaps --out gap.wav "$addr"
    local receiver=$last_pid
    start send vrx-send "$addr"
    wait_for "samples in gap.wav" file_bigger gap.wav 20000
    kill -INT "$last_pid"
    finish "$last_pid"
    sleep 1 # the pause in the stream, not a synchronisation
    start send vrx-send "$addr"
    finish "$receiver"
    [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
    lost=$(sed -n -E 's/^  gaps +[1-9][0-9]*, ([0-9]+)\.[0-9] ms lost \(about [0-9]+ frames?\), filled with silence$/\1/p' recv.err)
    # The last frame before the pause may end 10 ms after its sender did.
    [ "${lost:-0}" -ge 900 ] || fail "no gap of the 1 s pause: $(cat recv.err)"
    # The stream's first 3 s and at most one 10 ms frame more; silence rounds to whole samples.
    samples=$(soxi -V1 -s gap.wav)
    [ "$samples" -ge 143990 ] && [ "$samples" -le 144490 ] || fail "gap.wav holds $samples samples, not 3 s: $(cat recv.err)"
}

# Standard input that stalls: vrx-send says so and goes on at the current time, so that the
# receiver sees a gap and every sample, not frames late for good.
stdin_stall() {
    local addr lost
    addr=$(address stall)
    sox -n -r 48000 -c 2 -b 16 -e signed-integer -L -t raw in.raw synth 1 whitenoise vol 0.5
    start recv vrx-recv --stdout --exit-with-sender "$addr" >out.raw
    # Half a second at once; once it streams, input stops for longer than that (the stimulus).
    { head -c 96000 in.raw; wait_for "the first samples" file_bigger out.raw 0; sleep 1.5; tail -c +96001 in.raw; } |
        timeout 60 "$bin/vrx-send" --stdin --wait-receiver --frame-ms 250 --protocol pipeline "$addr" 2>send.err
    finish "$last_pid"
    [ "$status" -eq 0 ] || fail "vrx-recv exited with $status: $(cat recv.err)"
    grep -E -q "standard input came [0-9.]+ s late; the stream goes on at the current time" send.err ||
        fail "no note of the stall: $(cat send.err)"
    lost=$(sed -n -E 's/^  gaps +[1-9][0-9]*, ([0-9]+)\.[0-9] ms lost.*/\1/p' recv.err)
    [ "${lost:-0}" -ge 500 ] || fail "no gap for the stall: $(cat recv.err)"
    same_samples in.raw out.raw 4
}

# SIGTERM, SIGINT or SIGHUP (a closed terminal) during a receive: exit 0 and a WAV file whose
# header counts what it holds; the sender too ends cleanly and removes its directory.
signal_leaves_valid_wav() {
    local addr signal riff data size
    addr=$(address signal)
    start send vrx-send "$addr"
    local sender=$last_pid
    for signal in TERM INT HUP; do
        start recv vrx-recv --out "live-$signal.wav" "$addr"
        wait_for "samples in live-$signal.wav" file_bigger "live-$signal.wav" 20000
        kill -"$signal" "$last_pid"
        finish "$last_pid"
        [ "$status" -eq 0 ] || fail "SIG$signal: exit $status: $(cat recv.err)"
        size=$(stat -c %s "live-$signal.wav")
        read -r riff < <(od -An -tu4 -j4 -N4 "live-$signal.wav")
        read -r data < <(od -An -tu4 -j40 -N4 "live-$signal.wav")
        [ "$riff" -eq $((size - 8)) ] && [ "$data" -eq $((size - 44)) ] ||
            fail "SIG$signal: RIFF size $riff and data size $data in a file of $size bytes"
    done
    kill -HUP "$sender"
    finish "$sender"
    [ "$status" -eq 0 ] && [ -z "$(ls "$TMPDIR")" ] || fail "sender on SIGHUP: exit $status, left $(ls "$TMPDIR")"

    # vrx-probe interrupted says how long it waited.
    start probe vrx-probe --timeout 60 "$(address nobody)"
    wait_for "vrx-probe to take signals" takes_signals "$last_pid"
    kill -INT "$last_pid"
    finish "$last_pid"
    [ "$status" -eq 1 ] && grep -E -q "interrupted; no sender answered at .* \(waited [0-9.]+ s\)" probe.err ||
        fail "interrupted probe: exit $status, $(cat probe.err)"
}

# TMPDIR is made once with mode 1777; a status line on a terminal only; the library's log
# follows --log-level and --log-config.
terminal_and_logging() {
    local addr
    addr=$(address terminal)
    start send vrx-send "$addr"
    wait_for "the sender" eval '"$bin/vrx-probe" "$addr" >/dev/null'
    [ "$(stat -c %a "$TMPDIR")" = 1777 ] || fail "TMPDIR has mode $(stat -c %a "$TMPDIR")"
    [ "$(grep -c "created '$TMPDIR'" send.err)" -eq 1 ] || fail "no single note of TMPDIR: $(cat send.err)"

    timeout 60 script -qec "stty cols 200; '$bin/vrx-recv' --duration 1 '$addr'" /dev/null >tty.out
    grep -q $'\x1b\\[K' tty.out && grep -q "running | 48000 Hz, 2 channels, S16LE | .* dBFS | latency p50" tty.out ||
        fail "no status line on a terminal: $(cat -v tty.out)"
    # On 80 columns, with a level meter for 8 channels: whole fields only, none cut.
    start wide vrx-send --channels 8 "$(address wide)"
    timeout 60 script -qec "stty cols 80; '$bin/vrx-recv' --duration 1 '$(address wide)'" /dev/null >wide.out
    tr '\r' '\n' <wide.out | sed 's/\x1b\[K//' | grep '^running' >wide.lines || fail "no status line: $(cat -v wide.out)"
    ! grep -v -E '^.{1,79}$' wide.lines && ! grep -v -E '(s\)|gaps|dBFS|ms)$' wide.lines ||
        fail "status lines beyond 79 columns or cut: $(cat wide.lines)"
    timeout 60 "$bin/vrx-recv" --duration 0.3 "$addr" 2>plain.err
    ! grep -q $'[\r\x1b]' plain.err || fail "a status line into a file: $(cat -v plain.err)"

    timeout 60 "$bin/vrx-recv" --duration 0.1 --log-level debug "$addr" 2>debug.err
    grep -q "vrx-recv: \[Voraxis DEBUG\] Receiver initialized" debug.err || fail "no debug records: $(cat debug.err)"
    cat >log.properties <<PROPERTIES
log4cplus.rootLogger=TRACE, file
log4cplus.appender.file=log4cplus::FileAppender
log4cplus.appender.file.File=$PWD/library.log
log4cplus.appender.file.layout=log4cplus::PatternLayout
log4cplus.appender.file.layout.ConversionPattern=%p %m%n
PROPERTIES
    timeout 60 "$bin/vrx-recv" --duration 0.1 --log-config log.properties "$addr" 2>config.err
    grep -q "^DEBUG Receiver initialized" library.log && ! grep -q Voraxis config.err ||
        fail "--log-config did not route the records: $(cat config.err)"
}

"$case_name"
