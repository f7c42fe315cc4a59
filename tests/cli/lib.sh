# Helpers for the tools' process-level tests, one per concept. Sourced by cases.sh with the
# tools' directory in $bin. Each test gets a scratch directory, and $TMPDIR (where senders
# appear) inside it, not yet created: the tools make it. All of it goes at exit, unless KEEP
# is set (to look at a failure).
set -euo pipefail

scratch=$(mktemp -d "${TMPDIR:-/tmp}/vrx-cli.XXXXXX")
export TMPDIR=$scratch/vrx
cd "$scratch"
pids=()

cleanup() {
    for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
    [ -n "${KEEP:-}" ] || rm -rf "$scratch"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

# A sidechannel address no other test process uses.
address() { echo "vrx-cli-$$-$1"; }

# start NAME TOOL ARGS...: runs a tool in the background, stderr into NAME.err, pid in $last_pid.
start() {
    local name=$1 tool=$2
    shift 2
    "$bin/$tool" "$@" 2>"$name.err" &
    last_pid=$!
    pids+=("$last_pid")
}

# wait_for DESCRIPTION COMMAND...: polls COMMAND until it succeeds, for 30 s at most.
wait_for() {
    local what=$1
    shift
    for _ in $(seq 600); do
        "$@" && return 0
        sleep 0.05
    done
    fail "timed out waiting for $what"
}

# ended PID: the background process has exited (a zombie until it is waited for).
ended() {
    local state
    state=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null) || return 0
    [ "$state" = Z ]
}

# takes_signals PID: the tool has its signal descriptor for SIGINT, so a signal sent now is
# handled. (A blocked SIGINT alone does not tell: start-up code blocks every signal for a moment,
# and a SIGINT that a background job ignores is lost when it is unblocked again.)
takes_signals() {
    local mask
    mask=$(sed -n 's/^sigmask:\s*//p' /proc/"$1"/fdinfo/* 2>/dev/null | head -n 1) && [ -n "$mask" ] &&
        ((0x${mask: -8} & 2))
}

# finish PID: waits (30 s at most) for a background tool; its exit code in $status.
finish() {
    wait_for "process $1 to end" ended "$1"
    status=0
    wait "$1" || status=$?
}

# file_bigger FILE BYTES
file_bigger() { [ -f "$1" ] && [ "$(stat -c %s "$1")" -gt "$2" ]; }

# same_samples EXPECTED ACTUAL FRAME_BYTES: raw ACTUAL is EXPECTED less whole sample frames at
# its start (a receiver may miss the first frames while it connects), never anything later.
same_samples() {
    local expected=$1 actual=$2 frame_bytes=$3
    local expected_size actual_size
    expected_size=$(stat -c %s "$expected")
    actual_size=$(stat -c %s "$actual")
    [ "$actual_size" -gt 0 ] || fail "$actual is empty"
    [ "$actual_size" -le "$expected_size" ] || fail "$actual has $actual_size bytes, more than $expected_size"
    [ $(((expected_size - actual_size) % frame_bytes)) -eq 0 ] || fail "$actual lost part of a sample frame"
    cmp <(tail -c "$actual_size" "$expected") "$actual" >/dev/null ||
        fail "$actual is not the end of $expected: lost $((expected_size - actual_size)) bytes, then" \
            "$(cmp <(tail -c "$actual_size" "$expected") "$actual" | sed 's/.*differ: //') of $actual_size differs"
}

# to_raw AUDIO_FILE: its samples, as stored, into AUDIO_FILE.raw
to_raw() { sox -V1 "$1" -t raw "$1.raw"; }

# has_format FILE RATE CHANNELS BITS ENCODING_WORD
has_format() {
    local rate channels bits encoding
    rate=$(soxi -V1 -r "$1") channels=$(soxi -V1 -c "$1") bits=$(soxi -V1 -b "$1") encoding=$(soxi -V1 -e "$1")
    [ "$rate $channels $bits" = "$2 $3 $4" ] && [[ $encoding == $5* ]] ||
        fail "$1 is $rate Hz, $channels ch, $bits bit $encoding; not $2 $3 $4 $5"
}
