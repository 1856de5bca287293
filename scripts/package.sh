#!/usr/bin/env bash
# Builds the release packages on a fresh Debian 12 machine (installing what is
# missing first):
#   - the Debian packages libkorvsdkdevicetool0, libkorvsdkdevicetool-dev and
#     korvsdk-tools (CPack, cmake/Packaging.cmake) in build/package/packages/,
#     each checked by lintian (an error fails the script);
#   - then the Windows zip, when scripts/package-win64.sh is there.
# ./scripts/package.sh --deb-only makes the Debian packages alone.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=$(nproc 2>/dev/null || echo 2)
deb_only=0
[[ ${1:-} == --deb-only ]] && deb_only=1

./scripts/install-deps.sh

echo "== Debian packages"
# A Release build of its own, installed to /usr as a Debian package is, with
# the compiler and linker flags Debian builds its packages with, all of its
# hardening included (bindnow too).
flags() { DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
cmake -S . -B build/package -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DKORVSDK_BUILD_TESTS=OFF -DKORVSDK_BUILD_BENCH=OFF \
  -DCMAKE_C_FLAGS="$(flags CPPFLAGS) $(flags CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$(flags LDFLAGS)" -DCMAKE_SHARED_LINKER_FLAGS="$(flags LDFLAGS)" >/dev/null
cmake --build build/package -j"$jobs"
rm -rf build/package/packages build/package/_CPack_Packages
# The packages' folders and files get their modes from the umask (folders
# 0755, as Debian wants them, only with 022).
(umask 022 && cd build/package && cpack -G DEB >/dev/null)
debs=(build/package/packages/*.deb)
lintian --fail-on error "${debs[@]}"
printf '%s\n' "${debs[@]}"

if [[ $deb_only == 1 ]]; then
  exit 0
fi

# ---- Windows zip: scripts/package-win64.sh, when it is there ------------
if [ -e ./scripts/package-win64.sh ]; then
  echo "== Windows zip"
  ./scripts/package-win64.sh
fi
