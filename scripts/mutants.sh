#!/usr/bin/env bash
# Shows that the tests catch deliberate faults: each patch in tests/mutants/
# puts one fault into src/; the Linux tree is built with it and the tests
# run, and at least one test must fail. The patch is taken out again
# whatever happens. Slow (a build and a test run per fault), so not part of
# CI. Extra ctest arguments (for example -E sweep to leave out the
# interrupted-update sweeps) come from MUTANT_CTEST_ARGS.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
build=build/linux
if ! git diff --quiet -- src include; then
  echo "mutants: src/ or include/ has changes of its own; commit or stash them first" >&2
  exit 2
fi
cmake -S . -B "$build" -DKORVSDK_BUILD_TESTS=ON >/dev/null || exit 2

applied=""
revert() { [ -n "$applied" ] && git apply -R "$applied" && applied=""; }
trap revert EXIT INT TERM

status=0
for patch in tests/mutants/*.patch; do
  name=$(basename "$patch" .patch)
  git apply "$patch" || { echo "mutant $name: does not apply" >&2; status=1; continue; }
  applied=$patch
  log="$build/mutant-$name.log"
  if ! cmake --build "$build" -j2 >"$log" 2>&1; then
    echo "mutant $name: the build failed (see $log)"
    revert
    status=1
    continue
  fi
  # shellcheck disable=SC2086
  ctest --test-dir "$build" -j2 ${MUTANT_CTEST_ARGS:-} >>"$log" 2>&1
  revert
  # ctest lists the failed tests as "  <n> - <name> (Failed)".
  failed=$(sed -n '/The following tests FAILED:/,$p' "$log" |
           sed -n 's/^[[:space:]]*[0-9]* - \(.*\) (.*)$/\1/p')
  count=$(printf '%s' "$failed" | grep -c . || true)
  if [ "$count" -eq 0 ]; then
    echo "mutant $name: NOT caught"
    status=1
  else
    [ "$count" -eq 1 ] && tests=test || tests=tests
    echo "mutant $name: caught by $count $tests ($(printf '%s' "$failed" | paste -sd ' ' | sed 's/ /, /g'))"
  fi
done
trap - EXIT INT TERM
echo "rebuilding without the faults" >&2
cmake --build "$build" -j2 >/dev/null 2>&1 || status=1
exit $status
