#!/bin/sh
# Fuzzes the HID report-descriptor parser with libFuzzer.
#
#   fuzz/run-fuzz.sh [SECONDS]     (default 30)
#
# Configures build/fuzz with clang, builds hid_descriptor_fuzzer, seeds
# build/fuzz/corpus with the golden descriptors (KORVSDK_HID_GOLDEN_DIR,
# default ../shared/hid-golden beside the repository) and runs for the given
# time. Exits non-zero when the fuzzer finds a crash, a sanitizer report or
# a broken invariant; the input is then in build/fuzz/artifacts/.
# KORVSDK_FUZZ_BUILD_DIR overrides the build folder.
set -eu

seconds=${1:-30}
case $seconds in
    ''|*[!0-9]*) echo "usage: $0 [SECONDS]" >&2; exit 2 ;;
esac

here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
build=${KORVSDK_FUZZ_BUILD_DIR:-$root/build/fuzz}
golden=${KORVSDK_HID_GOLDEN_DIR:-$root/../shared/hid-golden}

cmake -S "$here" -B "$build" -DKORVSDK_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE= >/dev/null
cmake --build "$build" --target hid_descriptor_fuzzer -j "$(nproc)"

mkdir -p "$build/corpus" "$build/artifacts"
found=0
for f in "$golden"/*.bin; do
    [ -f "$f" ] || continue
    cp "$f" "$build/corpus/golden_$(basename "$f")"
    found=1
done
if [ "$found" = 0 ]; then
    echo "run-fuzz: no golden descriptors in $golden, starting from an empty corpus" >&2
fi

exec "$build/hid_descriptor_fuzzer" \
    -max_total_time="$seconds" \
    -max_len=4096 \
    -timeout=10 \
    -rss_limit_mb=2048 \
    -print_final_stats=1 \
    -dict="$here/hid_descriptor.dict" \
    -artifact_prefix="$build/artifacts/" \
    "$build/corpus"
