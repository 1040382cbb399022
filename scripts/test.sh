#!/usr/bin/env bash
# Installs what is missing, builds the release and the ASan+UBSan trees, runs
# every test in both, then runs the decoder fuzzer for a bounded time. Exit
# status is non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)
passed=0
failed=0
for preset in release asan; do
  echo "== $preset: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  echo "== $preset: tests"
  out=$(mktemp)
  status=0
  ctest --preset "$preset" -j "$jobs" 2>&1 | tee "$out" || status=$?
  total=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2/p' "$out" | tail -1)
  bad=$(sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1/p' "$out" | tail -1)
  rm -f "$out"
  passed=$(( passed + ${total:-0} - ${bad:-0} ))
  failed=$(( failed + ${bad:-0} ))
  if [ "$status" -ne 0 ] || [ -z "$total" ]; then
    echo "tests: $passed passed, $((failed > 0 ? failed : 1)) failed"
    exit 1
  fi
done
if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh; fi
echo "tests: $passed passed, $failed failed"
