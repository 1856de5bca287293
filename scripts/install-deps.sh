#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, only when one is missing.
set -euo pipefail

packages=(
  cmake g++ make
  libspdlog-dev libfmt-dev
  googletest libgtest-dev
  libcli11-dev nlohmann-json3-dev
  g++-mingw-w64-x86-64-posix binutils-mingw-w64-x86-64
  wine wine64
  umockdev libumockdev-dev pkg-config
  clang libclang-rt-14-dev
  dpkg-dev file lintian
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
