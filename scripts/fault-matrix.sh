#!/usr/bin/env bash
# Regenerates docs/fault-matrix.md from the fault-matrix tests: builds them
# in build/linux, runs every row (each in a process of its own) with
# KORVSDK_FAULT_MATRIX_OUT set so that each writes its part, and puts the
# parts together below the hand-kept text at the top of the document (the
# method, the legend, the notes on the columns). Run it after a change in behaviour that the tests report,
# and read the difference before committing it.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=${BUILD_DIR:-build/linux}
cmake -S . -B "$build" -DKORVSDK_BUILD_TESTS=ON >/dev/null
cmake --build "$build" --target fault_matrix_tests -j2
parts=$(mktemp -d)
trap 'rm -rf "$parts"' EXIT
KORVSDK_FAULT_MATRIX_OUT="$parts" ctest --test-dir "$build" -R 'FaultMatrix' -j2 --output-on-failure
{
  sed '/^## Fault columns$/,$d' docs/fault-matrix.md
  cat "$parts/head.md"
  cat "$parts"/row*.md
  printf '\n## Messages\n\nThe first new text of each cell that failed, answered differently or absorbed\nthe fault with a word, by row and text, with the columns that gave it.\n\n'
  cat "$parts"/note*.md
} > "$parts/doc.md"
mv "$parts/doc.md" docs/fault-matrix.md
echo "docs/fault-matrix.md: $(grep -c '^| [A-Z]' docs/fault-matrix.md) rows"
