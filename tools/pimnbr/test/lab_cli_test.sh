#!/usr/bin/env bash
# pimlab --shm publishes its routers' tables; pimnbr, another process, reads
# them; the tables go when pimlab does.
set -u
pimlab=$1 pimnbr=$2
dir=/tmp/pimnbr-cli-test-$$
err=$(mktemp)
fail() { echo "FAIL: $*"; kill -TERM "$lab" 2>/dev/null; wait "$lab" 2>/dev/null; rm -f "$err"; exit 1; }
"$pimlab" --shm "$dir" >/dev/null 2>"$err" &
lab=$!
for _ in $(seq 300); do grep -q published "$err" && break; sleep 0.1; done
grep -q published "$err" || fail "pimlab did not publish: $(cat "$err")"

out=$("$pimnbr" --state-dir "$dir/r1" show ip pim neighbor json) || fail "neighbor json exited $?"
# The default scenario ends with r2 and r4 on r1's LAN, r4 (priority 40) the DR.
for nbr in 198.18.1.2 198.18.1.4; do
   grep -q "\"neighbor\": \"$nbr\"" <<<"$out" || fail "r1 does not list $nbr: $out"
done
out=$("$pimnbr" --state-dir "$dir/r1" show ip pim interface json) || fail "interface json exited $?"
grep -q '"pimDesignatedRouter": "198.18.1.4"' <<<"$out" || fail "r1's DR is not r4: $out"
out=$("$pimnbr" --state-dir "$dir/r3" show ip pim neighbor json 2>/dev/null)
[ $? -eq 1 ] && [ "$out" = "{}" ] || fail "stopped r3 still shows: $out"

kill -TERM "$lab"
wait "$lab"
out=$("$pimnbr" --state-dir "$dir/r1" show ip pim neighbor 2>&1) && fail "tables outlived pimlab: $out"
ls /dev/shm | grep -q "^varn$(echo "$dir" | tr / .)" && fail "objects left in /dev/shm"
rm -f "$err"
echo PASS
