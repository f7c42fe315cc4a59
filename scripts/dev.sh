#!/usr/bin/env bash
# One entry point for setting up, building and running the project on Debian 12.
#
#   scripts/dev.sh setup          install the Debian packages the project needs (as root)
#   scripts/dev.sh demo           setup, build, then stream a tone from vrx-send to vrx-recv for
#                                 three seconds into build/demo.wav and show what arrived, then
#                                 to a GStreamer pipeline (vrxsrc) into build/demo-gst.wav
#   scripts/dev.sh examples       setup, build, run the example programs in examples/
#   scripts/dev.sh test [CONFIG]  setup, build, run the whole test suite with CTest
#                                 CONFIG: plain (default, warnings as errors), asan (Address-
#                                 and UndefinedBehaviorSanitizer) or tsan (ThreadSanitizer)
#   scripts/dev.sh package        build and install as a packager does (-DBUILD_TESTING=OFF)
#                                 into a staging directory, checking that no test dependency
#                                 was looked up and that no test target was made; and that a
#                                 configuration without the GStreamer plugin looks GStreamer up
#                                 nowhere, as on a machine without its development packages
#   scripts/dev.sh bench          setup, build and run the benchmarks in bench/
#   scripts/dev.sh fuzz [SECONDS] setup, build the libFuzzer targets of tests/fuzz/ with clang under
#                                 Address- and UndefinedBehaviorSanitizer (in build-fuzz/) and run
#                                 each for SECONDS (default 30) on a scratch copy of its corpus;
#                                 fails on any crash, hang, leak or sanitizer report
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
jobs=$(nproc)

packages=(
    build-essential cmake ninja-build pkg-config binutils
    libnanomsg-dev nanomsg-utils liblog4cplus-dev
    googletest libgtest-dev libgmock-dev
    libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
    gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-tools
    libsndfile1-dev libcli11-dev nlohmann-json3-dev sox help2man
    clang libclang-rt-14-dev
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
        # The examples run in the plain build only; the GStreamer elements' tests do not run
        # under ThreadSanitizer (see tests/gst), so neither is built there. The sanitizer builds
        # compile at -Og with line tables only: reports still name file and line, and the build
        # takes a third of the time that -O2 -g takes.
        asan) dir=$root/build-asan; options=(-DVRX_SANITIZERS=address,undefined -DVRX_BUILD_EXAMPLES=OFF) ;;
        tsan) dir=$root/build-tsan; options=(-DVRX_SANITIZERS=thread -DVRX_BUILD_EXAMPLES=OFF -DVRX_BUILD_GST_PLUGIN=OFF) ;;
        *) echo "unknown test configuration '$config' (plain, asan, tsan)" >&2; exit 2 ;;
    esac
    [ "$config" = plain ] || options+=("-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-Og -g1 -DNDEBUG")
    build "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVRX_WARNINGS_AS_ERRORS=ON "${options[@]}"
    # Sanitizer reports fail the test that caused them.
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    ctest --test-dir "$dir" --output-on-failure --parallel "$jobs" --timeout 300
}

package() {
    local dir=$root/build-package
    rm -rf "$dir"
    build "$dir" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF -DVRX_WARNINGS_AS_ERRORS=ON
    if grep -n -i -E 'gtest|gmock|gstreamer-(check|net)' "$dir/CMakeCache.txt"; then
        echo "package: a build without tests looked up a test dependency (above)" >&2
        exit 1
    fi
    local without_gst=$root/build-package-nogst
    rm -rf "$without_gst"
    cmake -S "$root" -B "$without_gst" -G Ninja -DBUILD_TESTING=OFF -DVRX_BUILD_GST_PLUGIN=OFF >/dev/null
    if grep -n -E 'gstreamer-1\.0|libgst' "$without_gst/CMakeCache.txt"; then
        echo "package: a configuration without the GStreamer plugin looked GStreamer up (above)" >&2
        exit 1
    fi
    rm -rf "$without_gst"
    if cmake --build "$dir" --target help | grep -E '(^|[^[:alnum:]_])test([^[:alnum:]]|$)|_tests?:'; then
        echo "package: a build without tests has test targets (above)" >&2
        exit 1
    fi
    DESTDIR="$dir/stage" cmake --install "$dir" --prefix /usr/local >/dev/null
    if ! find "$dir/stage/usr/local" -path "*/gstreamer-1.0/libgstvoraxis.so" | grep -q .; then
        echo "package: the GStreamer plugin was not installed under the prefix" >&2
        exit 1
    fi
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
    echo "   (frames and format: what arrived; gaps: breaks in timestamp continuity, that is frames"
    echo "   lost on the way; latency: how long after its timestamp a frame arrived, p50 and p99)"
    if [ -e "$root/build/src/gst/libgstvoraxis.so" ]; then
        echo
        echo "== A GStreamer pipeline as a consumer of the same stream, for 200 frames (2 s):"
        echo "   GST_PLUGIN_PATH=build/src/gst gst-launch-1.0 vrxsrc address=$address num-buffers=200 ! \\"
        echo "       audioconvert ! wavenc ! filesink location=build/demo-gst.wav"
        GST_PLUGIN_PATH=$root/build/src/gst gst-launch-1.0 vrxsrc address="$address" num-buffers=200 ! \
            audioconvert ! wavenc ! filesink location="$root/build/demo-gst.wav" 2>&1 | sed 's/^/   /'
        echo "   build/demo-gst.wav: $(stat -c %s "$root/build/demo-gst.wav") bytes"
    fi
    kill -INT "$sender"
    wait "$sender"
    trap - EXIT
    echo
    echo "== The sender stopped; what it said:"
    sed 's/^/   /' "$root/build/demo-send.log"
    echo
    echo "What arrived is in $wav ($(stat -c %s "$wav") bytes); listen with: aplay $wav"
    echo "Next: $bin/vrx-send --help (and vrx-recv, vrx-probe), or README.md, \"Use it from a shell\"."
}

# Each target runs on a copy of tests/fuzz/corpus/<target>/ in build-fuzz/corpus/, so that what
# it finds stays out of the repository. To keep a few inputs that add coverage:
#   build-fuzz/tests/fuzz/fuzz_<target> -merge=1 tests/fuzz/corpus/<target> build-fuzz/corpus/<target>
fuzz() {
    local seconds=${1:-30} dir=$root/build-fuzz corpus target log failed=() start=$SECONDS
    cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVRX_WARNINGS_AS_ERRORS=ON -DVRX_SANITIZERS=fuzzer-no-link,address,undefined \
        -DVRX_BUILD_FUZZERS=ON -DVRX_BUILD_EXAMPLES=OFF -DVRX_BUILD_TOOLS=OFF
    cmake --build "$dir" --parallel "$jobs" --target fuzzers
    export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    for corpus in "$root"/tests/fuzz/corpus/*/; do
        target=$(basename "$corpus") log=$dir/fuzz-$target.log
        rm -rf "$dir/corpus/$target" && mkdir -p "$dir/corpus" && cp -r "$corpus" "$dir/corpus/$target"
        # No libFuzzer timer (-timeout=0): its SIGALRM interrupts a waiting nanomsg send, which then
        # fails with EINTR. The targets bound every wait of their own and call a longer one a hang.
        if ! "$dir/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=0 -print_final_stats=1 \
                -artifact_prefix="$dir/$target-" "$dir/corpus/$target" >"$log" 2>&1 ||
            grep -q -E 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:' "$log"; then
            tail -n 80 "$log"
            failed+=("$target")
        fi
        echo "fuzz: $target: $(sed -n -E 's/^#([0-9]+)\s+DONE\s+cov: ([0-9]+) ft: ([0-9]+) .*exec\/s: ([0-9]+) .*/\1 runs, \4 per second, coverage \2 points, \3 features/p' "$log")," \
             "corpus $(find "$dir/corpus/$target" -type f | wc -l) inputs ($(ls "$corpus" | wc -l) in the repository)"
    done
    echo "fuzz: $((SECONDS - start)) s with the build"
    if [ ${#failed[@]} -gt 0 ]; then
        echo "fuzz: failed: ${failed[*]} (logs and inputs in $dir)" >&2
        exit 1
    fi
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
    fuzz)
        setup
        fuzz "${2:-30}"
        ;;
    bench)
        setup
        build "$root/build-bench" -DCMAKE_BUILD_TYPE=Release -DVRX_BUILD_BENCHMARKS=ON -DBUILD_TESTING=OFF
        for program in "$root"/build-bench/bench/vrx_bench_*; do "$program"; done
        ;;
    *)
        sed -n '2,/^set -euo pipefail/{/^#/p}' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
        exit 2
        ;;
esac
