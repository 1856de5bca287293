#!/usr/bin/env bash
# The Windows zip where a user unpacks it: in a folder whose path has spaces
# and characters beyond ASCII, on a new Wine prefix with nothing installed.
# Checks that the zip holds the DLL, both import libraries, the headers, the
# programs, the samples and the licences; that the DLL and the programs
# import only DLLs of Windows itself (tests/api/check_dll_imports.cmake);
# that the MSVC import library names every C function of the header; runs
# korvtool on the virtual device (list, make-image, update), and builds the
# C quick start against the zip alone, once with each import library, and
# runs it beside the DLL.
#   tests/install/win64_zip_test.sh KORVSDKDeviceTool-<version>-win64.zip
set -euo pipefail
zip=$(realpath "$1")
root=$(cd "$(dirname "$0")/../.." && pwd)
started=$SECONDS

fail() {
  echo "win64 zip: $*" >&2
  exit 1
}
# Runs a Windows program with its output in files: a pipe from Wine stays
# open as long as the persistent wineserver runs.
run() {
  local name=$1
  shift
  if ! wine "$@" >"$work/$name.out" 2>"$work/$name.err" </dev/null; then
    cat "$work/$name.out" "$work/$name.err" >&2
    fail "failed: $*"
  fi
}
expect() {
  grep -q -- "$2" "$work/$1.out" || { cat "$work/$1.out" >&2; fail "$1: no \"$2\" in its output"; }
}

work=$(mktemp -d)
export WINEPREFIX="$work/prefix" WINEDEBUG=-all
unset WINEDLLOVERRIDES WINEDLLPATH KORVTOOL_HISTORY
trap 'wineserver -k >/dev/null 2>&1 </dev/null || true; rm -rf "$work"' EXIT

dest="$work/Program Files ü 試験"
mkdir -p "$dest"
(cd "$dest" && cmake -E tar xf "$zip")
top="$dest/$(basename "$zip" .zip)"
[[ -d $top ]] || fail "no folder $(basename "$top") in the zip"
(cd "$top" && find . -type f | sort) >"$work/listing"
for file in bin/KORVSDKDeviceTool.dll bin/korvtool.exe bin/hidcaps.exe \
  lib/libKORVSDKDeviceTool.dll.a lib/KORVSDKDeviceTool.def lib/KORVSDKDeviceTool.lib \
  include/KORVSDKDeviceTool.h include/VideoConsoleCore.h \
  samples/quickstart.c samples/quickstart.cpp samples/virtual-setting.cfg README.md \
  licenses/spdlog.txt licenses/fmt.txt licenses/CLI11.txt licenses/nlohmann-json.txt \
  licenses/mingw-w64-runtime.txt licenses/gcc-runtime-libraries.txt licenses/SQLite.txt; do
  grep -qxF "./$file" "$work/listing" || fail "missing: $file"
done
grep -q "GCC RUNTIME LIBRARY EXCEPTION" "$top/licenses/gcc-runtime-libraries.txt" ||
  fail "licenses/gcc-runtime-libraries.txt lacks the runtime library exception"

bin="$top/bin"
cmake -DTOOL=x86_64-w64-mingw32-objdump \
  "-DFILES=$bin/KORVSDKDeviceTool.dll;$bin/korvtool.exe;$bin/hidcaps.exe" \
  -P "$root/tests/api/check_dll_imports.cmake"

# Every C function of the header, in the .def and as an import of the .lib.
functions=$(grep -oE '^KORVSDK_API[^(]*[ *]KORVSDK_[A-Za-z0-9_]+\(' "$top/include/KORVSDKDeviceTool.h" |
  grep -oE 'KORVSDK_[A-Za-z0-9_]+\($' | tr -d '(')
[[ -n $functions ]] || fail "no function read from the header"
x86_64-w64-mingw32-nm "$top/lib/KORVSDKDeviceTool.lib" >"$work/lib.nm"
for f in $functions; do
  grep -qE "^[[:space:]]+$f\$" "$top/lib/KORVSDKDeviceTool.def" || fail "$f is not in the .def"
  grep -qE " I __imp_$f\$" "$work/lib.nm" || fail "$f is not in the .lib"
done

# The new prefix, with its own wineserver kept running until the end.
mkdir -p "$WINEPREFIX"
wineserver -p >/dev/null 2>&1 </dev/null || fail "no wineserver started"
wine cmd /c exit >/dev/null 2>&1 </dev/null || true

mkdir -p "$dest/work ü"
cd "$dest/work ü"
run list "$bin/korvtool.exe" --virtual list
expect list "Found 1 capture device"
run make-image "$bin/korvtool.exe" make-image usb "new image.hex"
run update "$bin/korvtool.exe" --virtual update usb "new image.hex"
expect update "Update completed"

# The C quick start against the zip's headers, once with the mingw import
# library and once with the MSVC one, run from beside the DLL.
for lib in libKORVSDKDeviceTool.dll.a KORVSDKDeviceTool.lib; do
  x86_64-w64-mingw32-gcc-posix -Wall -Werror -I"$top/include" "$top/samples/quickstart.c" \
    "$top/lib/$lib" -o "$bin/quickstart.exe"
  (cd "$top/samples" && run quickstart "$bin/quickstart.exe" virtual-setting.cfg)
  expect quickstart "USB firmware"
done
echo "win64 zip: $(basename "$zip") works from a new prefix ($((SECONDS - started)) s)"
