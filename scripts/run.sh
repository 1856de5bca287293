#!/usr/bin/env bash
# Installs what is missing, builds the library and korvtool for Linux, and
# shows a short korvtool session on the virtual capture device (--virtual:
# built-in settings, nothing on disk): list, info, audio, mcu-info.
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

# The session runs in a scratch folder, so that nothing lands in the tree.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
for command in "list" "info" "audio" "mcu-info"; do
  echo
  echo "\$ korvtool --virtual $command"
  # shellcheck disable=SC2086  # the command is words on purpose
  "$korvtool" --virtual $command
done
echo
echo "More: ./scripts/run.sh --help lists every command (the program is build/linux/bin/korvtool)."
