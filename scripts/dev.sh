#!/usr/bin/env bash
# One entry point for setting up, building and running the project on Debian 12.
#
#   scripts/dev.sh setup          install the Debian packages the project needs (as root)
#   scripts/dev.sh demo           setup, build, then stream a tone from vrx-send to vrx-recv for
#                                 three seconds into build/demo.wav and show what arrived
#   scripts/dev.sh examples       setup, build, run the example programs in examples/
#   scripts/dev.sh test [CONFIG]  setup, build, run the whole test suite with CTest
#                                 CONFIG: plain (default, warnings as errors), asan (Address-
#                                 and UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer)
#   scripts/dev.sh package        build and install as a packager does (-DBUILD_TESTING=OFF)
#                                 into a staging directory, checking that no test dependency
#                                 was looked up and that no test target was made
#   scripts/dev.sh bench          setup, build and run the benchmarks in bench/
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

packages=(
    build-essential cmake ninja-build pkg-config binutils
    libnanomsg-dev nanomsg-utils liblog4cplus-dev
    googletest libgtest-dev libgmock-dev libbenchmark-dev
    libgstreamer1.0-dev
    libsndfile1-dev libcli11-dev nlohmann-json3-dev sox
)

setup() {
    local missing=()
    for package in "${packages[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" \
            || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# build <build dir> <cmake options...>
build() {
    local dir=$1
    shift
    cmake -S "$root" -B "$dir" -G Ninja "$@"
    cmake --build "$dir" --parallel "$jobs"
}

run_tests() {
    local config=${1:-plain} dir options=()
    case "$config" in
        plain) dir=$root/build ;;
        asan) dir=$root/build-asan; options=(-DVRX_SANITIZERS=address,undefined) ;;
        tsan) dir=$root/build-tsan; options=(-DVRX_SANITIZERS=thread) ;;
        *) echo "unknown test configuration '$config' (plain, asan, tsan)" >&2; exit 2 ;;
    esac
    build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVRX_WARNINGS_AS_ERRORS=ON "${options[@]}"
    # Sanitizer reports fail the test that caused them.
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    ctest --test-dir "$dir" --output-on-failure --parallel "$jobs" --timeout 300
}

package() {
    local dir=$root/build-package
    rm -rf "$dir"
    build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF -DVRX_WARNINGS_AS_ERRORS=ON
    if grep -n -i -E 'gtest|gmock|gstreamer' "$dir/CMakeCache.txt"; then
        echo "package: a build without tests looked up a test dependency (above)" >&2
        exit 1
    fi
    if cmake --build "$dir" --target help | grep -E '(^|[^[:alnum:]_])test([^[:alnum:]]|$)|_tests?:'; then
        echo "package: a build without tests has test targets (above)" >&2
        exit 1
    fi
    DESTDIR="$dir/stage" cmake --install "$dir" --prefix /usr/local >/dev/null
    echo "package: installed into $dir/stage without any test dependency"
}

# The tools' demo: a sender in the background, a receiver in front, and what arrived.
demo() {
    local bin=$root/build/tools address="vrx-demo-$$" wav=$root/build/demo.wav sender
    echo
    echo "== A sender: vrx-send $address"
    echo "   streams a 440 Hz tone (48000 Hz, 2 channels, S16LE, 10 ms frames) in real time;"
    echo "   its messages go to build/demo-send.log"
    "$bin/vrx-send" "$address" 2>"$root/build/demo-send.log" &
    sender=$!
    trap 'kill "$sender" 2>/dev/null || true' EXIT
    echo
    echo "== What the sender announces: vrx-probe $address"
    "$bin/vrx-probe" --timeout 5 "$address"
    echo
    echo "== A receiver: vrx-recv --duration 3 --out build/demo.wav $address"
    "$bin/vrx-recv" --duration 3 --out "$wav" "$address"
    kill -INT "$sender"
    wait "$sender"
    trap - EXIT
    echo "   (frames and format: what arrived; gaps: breaks in timestamp continuity, that is frames"
    echo "   lost on the way; latency: how long after its timestamp a frame arrived, p50 and p99)"
    echo
    echo "== The sender stopped; what it said:"
    sed 's/^/   /' "$root/build/demo-send.log"
    echo
    echo "What arrived is in $wav ($(stat -c %s "$wav") bytes); listen with: aplay $wav"
    echo "Next: $bin/vrx-send --help (and vrx-recv, vrx-probe), or README.md, \"Use it from a shell\"."
}

case "${1:-}" in
    setup) setup ;;
    demo)
        setup
        build "$root/build"
        demo
        ;;
    examples)
        setup
        build "$root/build"
        "$root/build/examples/vrx_packet_roundtrip"
        # A consumer waiting for its producer, then the producer: it connects as soon as the
        # sender appears.
        "$root/build/examples/vrx_receiver_example" &
        sleep 0.5
        "$root/build/examples/vrx_sender_example"
        wait
        ;;
    test)
        setup
        run_tests "${2:-plain}"
        ;;
    package)
        setup
        package
        ;;
    bench)
        setup
        build "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DVRX_BUILD_BENCHMARKS=ON -DBUILD_TESTING=OFF
        for program in "$root"/build-bench/bench/vrx_bench_*; do "$program"; done
        ;;
    *)
        sed -n '2,14p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
        exit 2
        ;;
esac
