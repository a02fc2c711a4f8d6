#!/bin/sh
# A card whose route table is killed mid-run from outside.
#   card_failure_test.sh DEMO           kt4democard must say which process failed and how,
#                                       exit 1 promptly, and leave nothing behind (its
#                                       directory with --clean, its System V semaphore sets);
#   card_failure_test.sh DEMO restart   with --restart (and the routing and query processes
#                                       killed by the card itself, --kill), every process is
#                                       started again, nothing is lost, exit 0, nothing left.
demo=$1
mode=${2:-fail}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
if [ "$mode" = restart ]; then
    "$demo" --duration 10 --kill routing@3 --kill query@5 --clean >"$out" 2>&1 &
else
    "$demo" --duration 60 --clean >"$out" 2>&1 &
fi
demo_pid=$!
table=
for _ in $(seq 300); do # the card comes up within 30 s
    table=$(sed -n 's/^\[card\] route table (pid \([0-9]*\)).*/\1/p' "$out")
    [ -n "$table" ] && break
    sleep 0.1
done
if [ -z "$table" ]; then
    kill "$demo_pid"; wait "$demo_pid"; cat "$out"
    echo "FAIL: the card did not come up"; exit 1
fi
sleep 1 # the stream under way
kill -KILL "$table"
rc=
for _ in $(seq 600); do # a failure is noticed within a second or two, and taken down
    if ! kill -0 "$demo_pid" 2>/dev/null; then wait "$demo_pid"; rc=$?; break; fi
    sleep 0.1
done
cat "$out"
[ -n "$rc" ] || { kill -KILL "$demo_pid"; echo "FAIL: still running 60 s after the kill"; exit 1; }
if [ "$mode" = restart ]; then
    [ "$rc" -eq 0 ] || { echo "FAIL: exit status $rc, 0 expected"; exit 1; }
    for p in table routing query; do
        grep -q "^\[card\] $p (pid [0-9]*) ended, killed by signal 9: starting it again" "$out" &&
            grep -q "^\[card\] $p started again (pid [0-9]*, restart 1)" "$out" ||
            { echo "FAIL: $p not started again"; exit 1; }
    done
    grep -q '^  restarts          table 1, routing 1, query 1;' "$out" &&
        grep -q '^kt4democard: ok: ' "$out" || { echo "FAIL: no clean summary"; exit 1; }
else
    [ "$rc" -eq 1 ] || { echo "FAIL: exit status $rc, 1 expected"; exit 1; }
    grep -q '^kt4democard: table: running failed: it ended while the card ran: killed by signal 9' "$out" ||
        { echo "FAIL: the table's failure is not named"; exit 1; }
fi
root=$(sed -n 's/^\[card\] up: product directory \([^,]*\),.*/\1/p' "$out")
offset=$(sed -n 's/^\[card\] up: .*System V key offset \([0-9]*\)$/\1/p' "$out")
[ -n "$root" ] && [ ! -e "$root" ] || { echo "FAIL: $root left behind"; exit 1; }
left=0
for k in $(seq 1028 1055) 1084 1085; do
    key=$(printf '0x%08x' $((offset + k)))
    ipcs -s | grep -q "^$key " && left=$((left + 1))
done
[ "$left" -eq 0 ] || { echo "FAIL: $left semaphore set(s) of the card left"; exit 1; }
echo "card $mode: as expected, nothing left"
