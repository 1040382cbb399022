#!/usr/bin/env bash
# Builds the Hello decoder fuzz target (clang++-14, libFuzzer, ASan+UBSan)
# and runs it for a bounded time on a scratch copy of the seed corpus.
# Prints how many inputs ran and how fast; exits non-zero when the fuzzer
# finds a crash, keeping the reproducer under build/fuzz/artifacts/.
# FUZZ_SECONDS overrides the run time (default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${FUZZ_SECONDS:-60}

cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target hello_decode_fuzz

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r fuzz/corpus/hello "$work/corpus"
artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"

status=0
build/fuzz/fuzz/hello_decode_fuzz -max_total_time="$seconds" -rss_limit_mb=2048 \
   -print_final_stats=1 -artifact_prefix="$artifacts/" "$work/corpus" \
   >"$work/fuzz.log" 2>&1 </dev/null || status=$?

runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/fuzz.log" | tail -1)
rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$work/fuzz.log" | tail -1)
cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+/[0-9]+[a-zA-Z]*' "$work/fuzz.log" | tail -1 || true)
echo "fuzz: hello_decode_fuzz ran ${runs:-?} inputs (time limit ${seconds}s), ${rate:-?} exec/s (${cov:-no coverage line})"
if [ "$status" -ne 0 ]; then
   echo "fuzz: hello_decode_fuzz failed (exit $status); last lines of its log:" >&2
   tail -n 60 "$work/fuzz.log" >&2
   ls -l "$artifacts" >&2 || true
   exit "$status"
fi
