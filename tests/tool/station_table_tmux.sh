#!/usr/bin/env bash
# The station's live table on a real terminal: korvtool station runs on
# eight virtual units inside tmux, and the screen is read back with
# capture-pane while the units are written and after the end. The table
# must be redrawn in place: one heading, one row per port, a bar on a
# running row, every row "pass" at the end.
# Usage: station_table_tmux.sh KORVTOOL
set -euo pipefail
korvtool=$(realpath "$1")
work=$(mktemp -d)
session="korvtool-table-$$"
trap 'tmux kill-session -t "$session" 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"
"$korvtool" make-image usb fw.hex >/dev/null
{
  printf 'DeviceBackend=virtual\nEnableLocalLogging=0\nDevIDNum=1\n'
  printf 'DevDrvID0=USB\\VID_FFF0&PID_0C01\nFW_Overwrite=0\nUSB_Burn_Area=1\nVirtualDeviceCount=8\n'
  # Slow enough transfers that the table is seen while the units are written.
  for n in 0 1 2 3 4 5 6 7; do printf 'Virtual%d_LatencyMs=4\n' "$n"; done
} > bench.cfg

tmux -f /dev/null new-session -d -s "$session" -x 120 -y 40 \
  "KORVTOOL_HISTORY=$work/history.sqlite '$korvtool' --config bench.cfg station --usb fw.hex --run-dir run; echo EXIT=\$?; sleep 60"

fail() { echo "FAIL: $*"; echo "--- screen:"; printf '%s\n' "$screen"; exit 1; }
count() { grep -c -- "$1" <<<"$screen" || true; }

# While the units are written: a bar on a running row.
running=""
for _ in $(seq 1 300); do
  screen=$(tmux capture-pane -p -t "$session")
  if grep -q 'running' <<<"$screen" && grep -q '\[#' <<<"$screen"; then running=1; break; fi
  grep -q 'EXIT=' <<<"$screen" && break
  sleep 0.1
done
[ -n "$running" ] || fail "no running row with a progress bar was seen"
[ "$(count 'LOCATION')" = 1 ] || fail "the table heading is not drawn once while running"

for _ in $(seq 1 600); do
  screen=$(tmux capture-pane -p -t "$session")
  grep -q 'EXIT=' <<<"$screen" && break
  sleep 0.1
done
grep -q 'EXIT=0' <<<"$screen" || fail "the station did not end with exit status 0"
# Redrawn in place: one heading and one row per port on the whole screen.
[ "$(count 'LOCATION')" = 1 ] || fail "the table was not redrawn in place"
for n in 1 2 3 4 5 6 7 8; do
  [ "$(grep -c "^1-$n  .*VC0000000$n .* pass " <<<"$screen" || true)" = 1 ] ||
    fail "port 1-$n has not exactly one row that says pass"
done
grep -q 'Run .*: 8 units, 8 pass' <<<"$screen" || fail "no summary line"
echo "station table in tmux: 8 rows redrawn in place, all pass"
