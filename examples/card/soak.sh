#!/bin/sh
# The demo card's soak: a long run at a loss rate, each of the demo's three processes killed
# with SIGKILL once along the way and started again, the resident sizes and live blocks of
# every process each minute, and afterwards what the card left on the machine.
#
#   soak.sh DEMO [SECONDS] [LOSS]      (default 600 s at 0.05)
#
# Run it inside a System V namespace of its own (`unshare --ipc`, as `./build.sh soak` does)
# for the count of System V objects to be the card's alone. Exit 0 when the card ended with
# exit 0 (every update applied once and in order, every process stopped cleanly) and left no
# System V object, no directory and no lock file.
demo=$1
secs=${2:-600}
loss=${3:-0.05}
out=$(mktemp)
trap 'rm -f "$out"' EXIT
before=$(ls -d /tmp/kt4democard* 2>/dev/null | sort)
echo "== soak: $secs s at loss $loss; routing killed at $((secs / 4)) s, table at $((secs / 2)) s," \
     "query at $((secs * 3 / 4)) s"
"$demo" --duration "$secs" --loss "$loss" --memory 60 --clean \
    --kill "routing@$((secs / 4))" --kill "table@$((secs / 2))" --kill "query@$((secs * 3 / 4))" \
    >"$out" 2>&1
rc=$?
grep -v '^\[ *[0-9.]*s\] updates' "$out" # the progress lines: one a second
after=$(ls -d /tmp/kt4democard* 2>/dev/null | sort)
sems=$(ipcs -s | grep -c '^0x')
shms=$(ipcs -m | grep -c '^0x')
msgs=$(ipcs -q | grep -c '^0x')
echo "== after the run: exit status $rc; System V: $sems semaphore set(s), $shms shared memory" \
     "segment(s), $msgs message queue(s)"
left=$(printf '%s\n%s\n' "$before" "$before" "$after" | sort | uniq -u)
[ -z "$left" ] || echo "== left in /tmp: $left"
[ "$rc" -eq 0 ] && [ "$sems" -eq 0 ] && [ "$shms" -eq 0 ] && [ "$msgs" -eq 0 ] && [ -z "$left" ] ||
    { echo "soak: FAILED"; exit 1; }
echo "soak: ok"
