#!/usr/bin/env bash
# Installs what is missing, builds the firmware update benchmark (Release, in
# build/bench) and runs it on the virtual capture device: one "bench ..."
# line per case, and a second one for the USB cases without latency.
# Arguments go to the benchmark (--reps N: runs per case, default 3; "usb",
# "mcu", "waits" or "station": that case only). The station case runs
# korvtool, built here too.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh
echo "Building the benchmark (the first build takes a few minutes)..." >&2
cmake -S . -B build/bench -DCMAKE_BUILD_TYPE=Release -DKORVSDK_BUILD_TESTS=OFF \
  -DKORVSDK_BUILD_BENCH=ON >/dev/null
cmake --build build/bench -j2 --target korvsdk_bench korvtool >/dev/null
exec build/bench/bin/korvsdk_bench "$@"
