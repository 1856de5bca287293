#!/usr/bin/env bash
# Installs what is missing, builds the library and korvtool for Linux, and
# shows a korvtool session on the virtual capture device (--virtual: built-in
# settings, nothing on disk but the images): list, info, audio; a backup of
# the USB flash and a USB update confirmed after the (simulated) re-plug, an
# MCU update likewise, and the update history.
#
# With arguments, runs korvtool with them instead, in the folder the script
# was called from, e.g.
#   ./scripts/run.sh --virtual audio set hp-out-volume 40
#   ./scripts/run.sh --config my-setting.cfg list
set -euo pipefail
caller=$(pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

./scripts/install-deps.sh
echo "Building the library and korvtool (the first build takes a few minutes)..." >&2
cmake -S . -B build/linux >/dev/null
cmake --build build/linux -j"$(nproc 2>/dev/null || echo 2)" --target korvtool >/dev/null
korvtool="$root/build/linux/bin/korvtool"

if [ $# -gt 0 ]; then
  cd "$caller"
  exec "$korvtool" "$@"
fi

# The session runs in a scratch folder, so that nothing lands in the tree;
# its update history too.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
export KORVTOOL_HISTORY="$work/history.jsonl"
step() {
  echo
  echo "\$ korvtool $*"
  "$korvtool" "$@"
}
step --virtual list
step --virtual info
step --virtual audio
# Images newer than the virtual device's firmware, made for it.
step make-image usb new-usb.hex
step make-image mcu new-mcu.bin
# The virtual device's user re-plugs it four seconds after an update.
step --virtual update usb new-usb.hex --backup backup.hex --wait-replug 30
step --virtual update mcu new-mcu.bin --wait-replug 30
step history
echo
echo "More: ./scripts/run.sh --help lists every command (the program is build/linux/bin/korvtool)."
