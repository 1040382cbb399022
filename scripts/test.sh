#!/usr/bin/env bash
# Installs what is missing, builds the release and the ASan+UBSan trees and
# runs every test in both. Exit status is non-zero when anything fails.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
jobs=$(nproc)
for preset in release asan; do
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$jobs"
done
if [ -x scripts/fuzz.sh ]; then scripts/fuzz.sh; fi
