#!/usr/bin/env bash
# Mutation testing by hand: applies each fault of a list to a source tree, one
# at a time, rebuilds the test binaries in that tree's release build, runs the
# ones the fault can reach and reports which tests catch it. Not part of CI.
#
#   scripts/mutate.sh SOURCE_TREE [MUTATIONS_FILE] [REPORT_FILE]
#
# MUTATIONS_FILE (default: scripts/mutations.txt next to this script) holds one
# fault a line, TAB separated: file (relative to the tree), the exact original
# text (must occur once), its replacement, a short name.
# Environment: MUTATE_BUILD (build dir, default SOURCE_TREE/build/release),
# MUTATE_JOBS (ninja -j, default 2), MUTATE_ONLY (regex on fault names),
# MUTATE_TIMEOUT (seconds per test binary, default 300), MUTATE_BINARIES (run
# these test binaries for every fault instead of those of its folder).
#
# Each fault is tried against the test binaries of its layer (see
# binaries_for); tests that need root and network namespaces are left out. A test failing before any fault is applied is not counted as
# a catch. A fault whose text is missing or not unique, or whose mutant does
# not compile, is reported as such and not scored.
set -u -o pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
tree=$(cd "${1:?usage: mutate.sh SOURCE_TREE [MUTATIONS_FILE] [REPORT_FILE]}" && pwd)
list=${2:-$here/mutations.txt}
report=${3:-}
build=${MUTATE_BUILD:-$tree/build/release}
jobs=${MUTATE_JOBS:-2}
only=${MUTATE_ONLY:-}
limit=${MUTATE_TIMEOUT:-300}

# The test binaries that can see a fault, by the folder of the mutated file;
# none of them needs root or network namespaces. MUTATE_BINARIES overrides.
binaries_for() {
   if [[ -n ${MUTATE_BINARIES:-} ]]; then echo "$MUTATE_BINARIES"; return; fi
   case $1 in
      pim/status/*) echo "pim_status_test pim_config_test pimlab_test" ;;
      pim/*) echo "pim_hello_test pim_config_test pimlab_test" ;;
      platform/kiv/* | platform/tolm/*) echo "kiv_test tolm_test pim_hello_test" ;;
      services/pimwire/*) echo "pimwire_test services_test pimlab_test" ;;
      *) echo "kiv_test tolm_test lumo_test pimwire_test services_test pim_hello_test pim_config_test pimlab_test" ;;
   esac
}

work=$(mktemp -d /tmp/mutate.XXXXXX)
current=""   # the file under mutation, restored on any exit
restore() {
   if [[ -n $current && -f $work/original ]]; then
      # A fresh time stamp, so that the build takes the original back.
      cp "$work/original" "$tree/$current"
      current=""
   fi
}
cleanup() { restore; rm -rf "$work"; }
trap cleanup EXIT
trap 'exit 130' INT TERM

log() { echo "[mutate] $*" >&2; }

if [[ ! -f $build/build.ninja ]]; then
   log "configuring $build"
   (cd "$tree" && cmake --preset release -B "$build" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
         -DCMAKE_C_COMPILER_LAUNCHER=ccache >/dev/null) || { log "configure failed"; exit 2; }
fi

# Every binary some fault of the list reaches.
present=()
while IFS=$'\t' read -r file _; do
   [[ -z ${file// } || $file == \#* ]] && continue
   for b in $(binaries_for "$file"); do
      [[ " ${present[*]} " == *" $b "* ]] || present+=("$b")
   done
done <"$list"
declare -A path_of

build_tests() { ninja -C "$build" -j "$jobs" "$@" >"$work/build.log" 2>&1 </dev/null; }

# Runs the binaries named in $@; prints one caught test per line
# (binary:Suite.Case, or binary:crash / binary:timeout when no case is named).
run_tests() {
   local b out rc
   for b in "$@"; do
      out=$work/$b.out
      (cd "$build" && timeout "$limit" "${path_of[$b]}" \
            --gtest_brief=1 >"$out" 2>&1 </dev/null)
      rc=$?
      [[ $rc -eq 0 ]] && continue
      if grep -q '^\[  FAILED  \] [^ ]*\.[^ ]*' "$out"; then
         grep -o '^\[  FAILED  \] [^ ,]*' "$out" | awk -v b="$b" '{ print b ":" $4 }' | sort -u
      elif [[ $rc -eq 124 ]]; then
         echo "$b:timeout"
      else
         echo "$b:crash"
      fi
   done
}

log "building the unmutated tree"
build_tests "${present[@]}" || { log "the unmutated tree does not build: $work/build.log"; cat "$work/build.log" >&2; exit 2; }
for b in "${present[@]}"; do
   path_of[$b]=$(find "$build" -name "$b" -type f -perm -u+x | head -1)
   [[ -n ${path_of[$b]} ]] || { log "no binary $b in $build"; exit 2; }
done
log "baseline run"
run_tests "${present[@]}" >"$work/baseline"
if [[ -s $work/baseline ]]; then
   log "failing before any fault (not counted): $(tr '\n' ' ' <"$work/baseline")"
fi

results=$work/results
: >"$results"
caught=0
scored=0
while IFS=$'\t' read -r file original replacement name; do
   [[ -z ${file// } || $file == \#* ]] && continue
   if [[ -n $only && ! $name =~ $only ]]; then continue; fi
   if [[ ! -f $tree/$file ]]; then
      printf '%s\tNOT-APPLIED (no file %s)\n' "$name" "$file" >>"$results"; continue
   fi
   cp -p "$tree/$file" "$work/original"
   current=$file
   if ! ORIG=$original REPL=$replacement python3 - "$tree/$file" <<'PY'
import os, sys
path = sys.argv[1]
text = open(path).read()
orig, repl = os.environ["ORIG"], os.environ["REPL"]
if text.count(orig) != 1:
    sys.exit(1)
open(path, "w").write(text.replace(orig, repl))
PY
   then
      restore
      printf '%s\tNOT-APPLIED (text not found exactly once)\n' "$name" >>"$results"; continue
   fi
   log "$name: building"
   run=($(binaries_for "$file"))
   if ! build_tests "${run[@]}"; then
      restore
      printf '%s\tNO-COMPILE\n' "$name" >>"$results"; continue
   fi
   log "$name: running ${run[*]}"
   hits=$(run_tests "${run[@]}" | grep -vxF -f "$work/baseline" | tr '\n' ' ')
   restore
   scored=$((scored + 1))
   if [[ -n ${hits// } ]]; then
      caught=$((caught + 1))
      printf '%s\t%s\n' "$name" "$hits" >>"$results"
   else
      printf '%s\tSURVIVED\n' "$name" >>"$results"
   fi
done <"$list"

# Put the tree's objects back in step with the unmutated sources.
log "rebuilding the unmutated tree"
build_tests "${present[@]}" || log "warning: the restored tree did not rebuild"

{
   echo "Mutation report for $tree ($(date -u +%FT%TZ))"
   printf '%-42s %s\n' "FAULT" "CAUGHT BY"
   # At most three tests a fault, then how many more.
   while IFS=$'\t' read -r name hits; do
      set -- $hits
      if [[ $# -gt 3 ]]; then hits="$1 $2 $3 (+$(($# - 3)) more)"; fi
      printf '%-42s %s\n' "$name" "$hits"
   done <"$results"
   if [[ -s $work/baseline ]]; then echo "failing before any fault: $(tr '\n' ' ' <"$work/baseline")"; fi
   echo "score: $caught caught of $scored scored ($(awk -v c=$caught -v s=$scored 'BEGIN { printf "%.1f", s ? 100 * c / s : 0 }')%)"
} | if [[ -n $report ]]; then tee "$report"; else cat; fi
if [[ -n $report ]]; then cp "$results" "$report.full"; fi
