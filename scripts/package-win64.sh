#!/usr/bin/env bash
# Builds the Windows zip, KORVSDKDeviceTool-<version>-win64.zip: a Release
# cross-build with mingw-w64 in build/package-win64 (no tests), packed by
# CPack (cmake/PackagingWin64.cmake says what goes in), then tried where a
# user would unpack it: on a new Wine prefix (tests/install/win64_zip_test.sh).
# Prints the zip's path last; its SHA-256 lies beside it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

./scripts/install-deps.sh

build=build/package-win64
echo "== Windows zip: Release build in $build" >&2
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DKORVSDK_BUILD_TESTS=OFF \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw-w64-x86_64.cmake" >/dev/null
cmake --build "$build" -j"$jobs" >/dev/null

rm -f "$build"/KORVSDKDeviceTool-*-win64.zip "$build"/KORVSDKDeviceTool-*-win64.zip.sha256
(cd "$build" && cpack -G ZIP >/dev/null)
zips=("$build"/KORVSDKDeviceTool-*-win64.zip)
[[ -f ${zips[0]} ]] || { echo "CPack made no zip in $build" >&2; exit 1; }

echo "== Windows zip: on a new Wine prefix" >&2
./tests/install/win64_zip_test.sh "${zips[0]}" >&2
echo "$root/${zips[0]}"
