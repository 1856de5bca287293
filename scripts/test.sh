#!/usr/bin/env bash
# Installs what is missing, builds the Linux library and the Windows DLL with
# all tests, and runs every test: natively, and the Windows programs under
# Wine. Exits non-zero when anything fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)

./scripts/install-deps.sh

echo "== Linux build"
cmake -S . -B build/linux -DKORVSDK_BUILD_TESTS=ON >/dev/null
cmake --build build/linux -j"$jobs"

echo "== Linux tests"
ctest --test-dir build/linux -j"$jobs" --output-on-failure
# The interrupted-update sweeps say what they found.
grep -h '^sweep ' build/linux/Testing/Temporary/LastTest.log || true

# The Debian packages, built, installed, used and purged on this machine:
# only as root (CI), since it installs system packages. It refuses to touch
# packages of these names that are already installed.
if [ "$(id -u)" -eq 0 ]; then
  echo "== Debian packages"
  ./tests/install/deb_packages.sh
fi

# The programs whose tests run again under the sanitizers: every export with
# bad input and beside an update, whole sessions with both updates and their
# worker and light threads, the class face with its workers, the programs
# that end while an update runs (exit_probe); under
# AddressSanitizer also the fault matrix (its leak check is the matrix's "no
# leak"; under ThreadSanitizer it alone would take four minutes). The
# per-subsystem unit tests, the interrupted-update sweeps and the korvtool
# process tests run only in the plain builds: a CI run must stay under 30
# minutes on two cores.
threaded=(c_api_tests robustness_tests virtual_session_tests firmware_session_tests
  toolcore_session_tests toolcore_tests exit_probe)
for kind in address thread; do
  sanitized=("${threaded[@]}")
  [[ $kind == address ]] && sanitized+=(fault_matrix_tests)
  labels="^($(IFS='|'; echo "${sanitized[*]}"))\$"
  case $kind in
    address) echo "== Linux tests under AddressSanitizer, UBSan and the leak check" ;;
    thread) echo "== Linux tests under ThreadSanitizer" ;;
  esac
  # -O1 -g1: the sanitizers' advice, line numbers in their reports, and a
  # quicker build than -O2 with full debug information.
  cmake -S . -B "build/$kind" -DKORVSDK_BUILD_TESTS=ON -DKORVSDK_SANITIZE="$kind" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" >/dev/null
  cmake --build "build/$kind" -j"$jobs" --target "${sanitized[@]}"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1 \
    TSAN_OPTIONS=second_deadlock_stack=1 \
    ctest --test-dir "build/$kind" -j"$jobs" -L "$labels" --output-on-failure
done

echo "== Fuzzing (20 s per target)"
if ! ./fuzz/run-fuzz.sh 20 > build/fuzz.log 2>&1; then
  tail -n 60 build/fuzz.log
  echo "fuzzing found a problem; the input is in build/fuzz/artifacts/<target>/" >&2
  exit 1
fi
grep -E '^fuzz ' build/fuzz.log || true

echo "== Windows build (mingw-w64)"
export WINEDEBUG=-all
# A Wine prefix of this build tree's own: a run never meets a wineserver or
# a prefix that another user of the machine is changing at the same time.
export WINEPREFIX="$root/build/wineprefix"
mkdir -p "$WINEPREFIX"
# One persistent wineserver for the whole run: the build lists the tests of
# each Windows program under Wine, and every later Wine start reuses it.
wineserver -p >/dev/null 2>&1 </dev/null || true
wine cmd /c exit >/dev/null 2>&1 </dev/null || true
trap 'wineserver -k >/dev/null 2>&1 </dev/null || true' EXIT
cmake -S . -B build/windows -DKORVSDK_BUILD_TESTS=ON \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-mingw-w64-x86_64.cmake" >/dev/null
cmake --build build/windows -j"$jobs"

echo "== Windows tests (Wine)"
ctest --test-dir build/windows -j"$jobs" --output-on-failure

# The Windows zip of this build, unpacked and run on a new Wine prefix of
# its own (scripts/package-win64.sh makes the Release zip the same way).
if [[ -f build/windows/CPackConfig.cmake ]]; then
  echo "== Windows zip (new Wine prefix)"
  rm -f build/windows/KORVSDKDeviceTool-*-win64.zip build/windows/KORVSDKDeviceTool-*-win64.zip.sha256
  (cd build/windows && cpack -G ZIP >/dev/null)
  ./tests/install/win64_zip_test.sh build/windows/KORVSDKDeviceTool-*-win64.zip
fi
