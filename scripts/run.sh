#!/usr/bin/env bash
# Installs what is missing, builds the library and korvtool for Linux, and
# runs korvtool in a scratch folder: it initialises the library, scans for
# capture devices and lists what it finds. Extra arguments go to korvtool.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh
cmake -S . -B build/linux >/dev/null
cmake --build build/linux -j"$(nproc 2>/dev/null || echo 2)" --target korvtool >/dev/null

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cat > "$work/setting.cfg" <<'CFG'
EnableLocalLogging=0
DevIDNum=1
DevDrvID0=USB\VID_FFF0&PID_0001
CFG
cd "$work"
"$root/build/linux/bin/korvtool" --config setting.cfg "$@"
