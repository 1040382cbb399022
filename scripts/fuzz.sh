#!/usr/bin/env bash
# Builds the fuzz targets (clang++-14, libFuzzer, ASan+UBSan) and runs each
# for a bounded time on a scratch copy of its seed corpus: the Hello decoder
# and the stateful neighbour engine (event sequences of one VRF, invariants
# checked after every event). Inputs may be up to 64 KB. Prints how many
# inputs ran and how fast; exits non-zero when a fuzzer finds a crash,
# keeping the reproducer under build/fuzz/artifacts/.
# FUZZ_SECONDS overrides the run time per target (default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target hello_decode_fuzz neighbor_engine_fuzz

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"

run() {
   local target=$1 corpus=$2 status=0
   shift 2
   mkdir -p "$work/$target"
   cp -r "fuzz/corpus/$corpus/." "$work/$target/"
   build/fuzz/fuzz/"$target" -max_total_time="$seconds" -max_len=65536 -rss_limit_mb=2048 "$@" \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$work/$target" \
      >"$work/$target.log" 2>&1 </dev/null || status=$?
   local runs rate cov
   runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$target.log" | tail -1)
   rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work/$target.log" | tail -1)
   cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+/[0-9]+[a-zA-Z]*' "$work/$target.log" | tail -1 || true)
   echo "fuzz: $target ran ${runs:-?} inputs (time limit ${seconds}s), ${rate:-?} exec/s (${cov:-no coverage line})"
   if [ "$status" -ne 0 ]; then
      echo "fuzz: $target failed (exit $status); last lines of its log:" >&2
      tail -n 60 "$work/$target.log" >&2
      ls -l "$artifacts" >&2 || true
      exit "$status"
   fi
}

run hello_decode_fuzz hello
# The entropic schedule spends most of the stateful target's time on its
# feature bookkeeping; the plain one runs several times as many inputs.
run neighbor_engine_fuzz engine -entropic=0
