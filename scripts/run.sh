#!/usr/bin/env bash
# Installs what is missing, builds the library and korvtool for Linux, and
# runs korvtool in a scratch folder against the virtual capture devices of
# samples/virtual-setting.cfg: it initialises the library, scans and lists
# what it finds. Extra arguments go to korvtool (e.g. --config PATH for a
# setting.cfg of your own, which then decides the backend).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh
cmake -S . -B build/linux >/dev/null
cmake --build build/linux -j"$(nproc 2>/dev/null || echo 2)" --target korvtool >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
grep -v '^EnableLocalLogging=' samples/virtual-setting.cfg > "$work/setting.cfg"
echo "EnableLocalLogging=0" >> "$work/setting.cfg"
cd "$work"
"$root/build/linux/bin/korvtool" --config setting.cfg "$@"
