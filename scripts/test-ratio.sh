#!/usr/bin/env bash
# Test lines against code lines, as the issue counts them: tracked *.cpp and
# *.h; a file is test if its path holds /test/ or /testing/ (the pipeline
# builders and virtual-time loop only tests use) or it ends in Test.cpp/Test.h;
# code is every other file under pim/, platform/, services/, tools/ (bench/
# and fuzz/ count only for their tests). Prints test lines, code lines, ratio.
#   scripts/test-ratio.sh [-v]   (-v: test lines per file, largest first)
set -euo pipefail
cd "$(dirname "$0")/.."
test_lines=0 code_lines=0
declare -a per_file=()
while IFS= read -r f; do
   n=$(wc -l <"$f")
   if [[ $f == */test/* || $f == test/* || $f == */testing/* || $f == *Test.cpp || $f == *Test.h ]]; then
      test_lines=$((test_lines + n))
      per_file+=("$n $f")
   elif [[ $f == pim/* || $f == platform/* || $f == services/* || $f == tools/* ]]; then
      code_lines=$((code_lines + n))
   fi
done < <(git ls-files '*.cpp' '*.h')
if [[ ${1:-} == -v ]]; then printf '%s\n' "${per_file[@]}" | sort -rn; fi
awk -v t="$test_lines" -v c="$code_lines" 'BEGIN { printf "test %d code %d ratio %.3f\n", t, c, t / c }'
