#!/usr/bin/env bash
# The main job: installs what is missing, builds the release tree and runs the
# lab on its embedded default scenario (several routers on a simulated LAN
# under virtual time). Extra arguments go to the lab (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
log=$(mktemp)
trap 'rm -f "$log"' EXIT
echo "building (release)..." >&2
if ! { cmake --preset release && cmake --build --preset release -j "$(nproc)" --target pimlab; } >"$log" 2>&1; then
   cat "$log" >&2
   exit 1
fi
build/release/tools/pimlab/pimlab "$@"
