#!/usr/bin/env bash
# The main job: installs what is missing, builds the release tree and runs the
# lab on its embedded default scenario (several routers on a simulated LAN
# under virtual time). Extra arguments go to the lab.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release -j "$(nproc)" --target pimlab
exec build/release/tools/pimlab/pimlab "$@"
