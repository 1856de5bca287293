#!/usr/bin/env bash
# The Debian packages on this machine, as an administrator and a user meet
# them: built by scripts/package.sh --deb-only (lintian included), the tools
# package refused without the library's, the three installed over an older
# version of themselves, korvtool and a virtual update run from PATH in an
# empty environment, a CMake project and a C program built against the -dev
# package, and after the purge nothing of them left on the system.
#
# It installs and purges system packages, so it needs root and is no ctest
# test: scripts/test.sh runs it when it runs as root (CI). It refuses to run
# when one of the packages is already installed, rather than remove it.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
cd "$root"
fail() { echo "deb_packages: $*" >&2; exit 1; }
[ "$(id -u)" -eq 0 ] || fail "needs root (it installs and purges the packages)"

packages=(libkorvsdkdevicetool0 libkorvsdkdevicetool-dev korvsdk-tools)
# Known to dpkg in any state but "not installed" (installed, unpacked, only
# its configuration files left, ...).
known() { [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null) == ?[^n]* ]]; }
for p in "${packages[@]}"; do
  known "$p" && fail "$p is installed on this machine; remove it first"
done

./scripts/package.sh --deb-only > "$root/build/package.log" 2>&1 ||
  fail "scripts/package.sh failed: $(tail -n 30 "$root/build/package.log")"
version=$(dpkg-deb -f build/package/packages/korvsdk-tools_*.deb Version)
debs=()
for p in "${packages[@]}"; do debs+=("$(echo build/package/packages/"$p"_"$version"_*.deb)"); done

work=$(mktemp -d)
cleanup() {
  local present=()
  for p in "${packages[@]}"; do
    if known "$p"; then present+=("$p"); fi
  done
  if [ ${#present[@]} -gt 0 ]; then dpkg --purge "${present[@]}" >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

echo "-- the tools alone: refused for the missing library"
if dpkg -i "${debs[2]}" > "$work/refused.log" 2>&1; then
  fail "korvsdk-tools installed without libkorvsdkdevicetool0"
fi
grep -q "depends on libkorvsdkdevicetool0 (= $version)" "$work/refused.log" ||
  fail "refused for another reason: $(cat "$work/refused.log")"
dpkg -r korvsdk-tools >/dev/null
[ ! -e /usr/bin/korvtool ] || fail "the refused package left /usr/bin/korvtool"

echo "-- an older version, then this one over it"
# The older set: these packages with a lower version, the exact dependencies
# lowered with it.
old=${version%-*}~old-${version##*-}
mkdir "$work/old"
for deb in "${debs[@]}"; do
  dir=$work/old/$(basename "$deb" .deb)
  dpkg-deb -R "$deb" "$dir"
  sed -i "s/^Version: .*/Version: $old/; s/(= $version)/(= $old)/" "$dir/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$dir" "$dir.deb" >/dev/null
done
dpkg -i "$work"/old/*.deb >/dev/null
dpkg -i "${debs[@]}" >/dev/null
for p in "${packages[@]}"; do
  [ "$(dpkg-query -W -f='${Version} ${db:Status-Abbrev}' "$p")" = "$version ii " ] ||
    fail "$p: $(dpkg-query -W -f='${Version} ${db:Status-Abbrev}' "$p")"
done
ldconfig -p | grep -q 'libKORVSDKDeviceTool\.so\.0 ' || fail "ldconfig does not know the library"
cmp -s /usr/lib/udev/rules.d/70-korvsdk-devices.rules packaging/linux/70-korvsdk-devices.rules ||
  fail "/usr/lib/udev/rules.d/70-korvsdk-devices.rules is not the project's rules file"

echo "-- korvtool from PATH in an empty environment"
mkdir -p "$work/home" "$work/run"
# expect TEXT COMMAND...: runs the command as a user would, from PATH with
# nothing else in the environment, and wants TEXT in what it prints.
expect() {
  local text=$1 out
  shift
  out=$(cd "$work/run" && env -i PATH=/usr/bin:/bin HOME="$work/home" "$@" 2>&1) ||
    fail "$* failed: $out"
  grep -q -- "$text" <<<"$out" || fail "$*: no \"$text\" in: $out"
}
expect "^korvtool ${version%-*}$" korvtool --version
expect VC00000001 korvtool --virtual list
expect "written: new.hex" korvtool make-image usb new.hex
expect "Update completed" korvtool --virtual update usb new.hex
expect "completed *new.hex" korvtool history
# A vendor collection with one feature report of eight bytes.
printf '\x06\x00\xff\x09\x01\xa1\x01\x15\x00\x26\xff\x00\x75\x08\x95\x08\x09\x01\xb1\x02\xc0' \
  > "$work/run/descriptor.bin"
expect "Feature ReportByteLength=9 ValueCaps=1" hidcaps descriptor.bin

echo "-- a CMake project and a C program against the -dev package"
cmake -S tests/install/consumer -B "$work/consumer" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DKORVSDK_REPOSITORY="$root" >/dev/null
grep -qx "KORVSDKDeviceTool_DIR:PATH=/usr/lib/[^/]*/cmake/KORVSDKDeviceTool" \
  "$work/consumer/CMakeCache.txt" || fail "find_package found another KORVSDKDeviceTool"
cmake --build "$work/consumer" -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
cp samples/virtual-setting.cfg "$work/run/"
# shellcheck disable=SC2046 # pkg-config's flags are words
cc samples/quickstart.c $(pkg-config --cflags --libs KORVSDKDeviceTool) -o "$work/quickstart_pc"
expect "USB firmware" "$work/consumer/quickstart" virtual-setting.cfg
expect "USB firmware" "$work/quickstart_pc" virtual-setting.cfg
expect "after: headphone volume 40" "$work/consumer/quickstart_cpp" virtual-setting.cfg 40
expect "PASSED" "$work/consumer/toolcore_session_client"

echo "-- purged: nothing of them left"
for p in "${packages[@]}"; do dpkg -L "$p"; done | grep -v '^/\.$' | sort -u > "$work/files"
dpkg --purge "${packages[@]}" >/dev/null
for p in "${packages[@]}"; do
  known "$p" && fail "$p is still known to dpkg after the purge"
done
while read -r path; do
  if [ -e "$path" ] || [ -L "$path" ]; then
    # A folder stays when another package has it too.
    [ -d "$path" ] && [ ! -L "$path" ] && dpkg -S "$path" >/dev/null 2>&1 && continue
    fail "left after the purge: $path"
  fi
done < "$work/files"
! ldconfig -p | grep -q libKORVSDKDeviceTool || fail "ldconfig still lists the library"
echo "deb_packages: passed"
