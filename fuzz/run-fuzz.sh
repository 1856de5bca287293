#!/bin/sh
# Builds the libFuzzer targets and runs each for the given time.
#
#   fuzz/run-fuzz.sh [SECONDS] [TARGET...]     (default 30 s, every target)
#
# Configures build/fuzz with clang and builds the targets. For each target:
# replays the inputs in fuzz/regressions/<target>/ (inputs that once made it
# fail), then fuzzes for SECONDS from a working corpus, build/fuzz/corpus/
# <target>, seeded from fuzz/corpus/<target>/ (and, for the descriptor
# parser, the golden descriptors in KORVSDK_HID_GOLDEN_DIR, default
# ../shared/hid-golden beside the repository), with fuzz/<target>.dict when
# there is one. Prints one line per target:
#     fuzz <target>: <N> runs in <S> s
# and exits non-zero when any target found a crash, a sanitizer report, a
# leak, a timeout or a broken invariant; the input is then in
# build/fuzz/artifacts/<target>/. Every target runs even when an earlier
# one failed. KORVSDK_FUZZ_BUILD_DIR overrides the build folder.
set -eu

seconds=${1:-30}
case $seconds in
    ''|*[!0-9]*) echo "usage: $0 [SECONDS] [TARGET...]" >&2; exit 2 ;;
esac
[ $# -gt 0 ] && shift
targets=${*:-hid_descriptor settings_file firmware_file device_reply}

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${KORVSDK_FUZZ_BUILD_DIR:-$root/build/fuzz}
golden=${KORVSDK_HID_GOLDEN_DIR:-$root/../shared/hid-golden}

cmake -S "$here" -B "$build" -DKORVSDK_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE= >/dev/null
build_targets=
for t in $targets; do build_targets="$build_targets --target ${t}_fuzzer"; done
# shellcheck disable=SC2086
cmake --build "$build" $build_targets -j "$(nproc)"

# The longest input of a target: a descriptor, a settings file or a
# firmware check's fields fit in 4 KiB; a run of the reply fuzzer reads a
# few hundred replies. The reply fuzzer runs a few hundred inputs a second:
# it may use long inputs from the start instead of growing them slowly.
options() {
    case $1 in
        device_reply) echo "-max_len=1024 -len_control=0" ;;
        *) echo "-max_len=4096" ;;
    esac
}

failed=
for t in $targets; do
    fuzzer="$build/${t}_fuzzer"
    corpus="$build/corpus/$t"
    artifacts="$build/artifacts/$t"
    log="$build/$t.log"
    mkdir -p "$corpus" "$artifacts"
    cp "$here/corpus/$t"/* "$corpus/" 2>/dev/null || true
    if [ "$t" = hid_descriptor ]; then
        for f in "$golden"/*.bin; do
            [ -f "$f" ] && cp "$f" "$corpus/golden_$(basename "$f")"
        done
    fi
    # shellcheck disable=SC2046
    set -- $(options "$t") -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix="$artifacts/"
    [ -f "$here/$t.dict" ] && set -- "$@" -dict="$here/$t.dict"

    # Inputs that once failed must pass for good.
    if [ -d "$here/regressions/$t" ] && [ -n "$(ls -A "$here/regressions/$t")" ]; then
        if ! "$fuzzer" "$@" "$here/regressions/$t"/* >"$build/$t.regressions.log" 2>&1; then
            cat "$build/$t.regressions.log" >&2
            echo "fuzz $t: a regression input fails again" >&2
            failed="$failed $t"
            continue
        fi
        echo "fuzz $t: $(ls "$here/regressions/$t" | wc -l) regression inputs pass"
    fi

    status=0
    "$fuzzer" "$@" -max_total_time="$seconds" -print_final_stats=1 "$corpus" \
        >"$log" 2>&1 || status=$?
    # The lines scripts/test.sh and readers look for, then the summary.
    grep -E '^(stat::number_of_executed_units|Done)' "$log" || true
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    took=$(sed -n 's/^Done [0-9]* runs in \([0-9]*\) second.*/\1/p' "$log")
    if [ "$status" -ne 0 ]; then
        tail -n 40 "$log" >&2
        echo "fuzz $t: FAILED after ${runs:-?} runs (exit $status); input in $artifacts/" >&2
        failed="$failed $t"
    else
        echo "fuzz $t: ${runs:-?} runs in ${took:-?} s"
    fi
done

if [ -n "$failed" ]; then
    echo "run-fuzz: failed:$failed" >&2
    exit 1
fi
