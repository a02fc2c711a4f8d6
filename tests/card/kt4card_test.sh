#!/usr/bin/env bash
# kt4card from the outside: up, status, run, down, and the refusals that keep a newcomer from
# misusing the start-up calls. Runs in a fresh System V IPC namespace (and network namespace)
# where the host allows it.
#
#   kt4card_test.sh KT4CARD SERVER
#     SERVER: a control process that serves until told otherwise (kt4guide_server)
set -uo pipefail
card=$1
server=$2

if [ -z "${KT4_CARD_TEST_INNER:-}" ]; then
    export KT4_CARD_TEST_INNER=1
    if unshare --ipc --net true 2>/dev/null && command -v ip >/dev/null; then
        exec unshare --ipc --net bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
    elif unshare --ipc true 2>/dev/null; then
        exec unshare --ipc "$0" "$@"
    fi
    export KT4_SYSV_KEY_OFFSET=$((0x33000000 + ($$ % 100000) * 128))
fi

work=$(mktemp -d)
export KT4_ROOT=$work/card
bg=""
cleanup() {
    [ -n "$bg" ] && kill "$bg" 2>/dev/null
    "$card" down --force >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT

failures=0
# expect CODE DESCRIPTION -- COMMAND...: runs it, output in $work/out
expect() {
    local want=$1 what=$2
    shift 3
    "$@" >"$work/out" 2>&1
    local got=$?
    if [ "$got" != "$want" ]; then
        echo "FAIL: $what: exit $got, expected $want"
        sed 's/^/    /' "$work/out"
        failures=$((failures + 1))
    fi
}
# grep_out PATTERN DESCRIPTION: the last command's output matches
grep_out() {
    if ! grep -Eq -- "$1" "$work/out"; then
        echo "FAIL: $2: no '$1' in"
        sed 's/^/    /' "$work/out"
        failures=$((failures + 1))
    fi
}

# A card that is not up: run refuses, and looking creates nothing (a process would have
# created the locks at value 0 and waited on them for ever).
expect 125 "run on a card that is not up" -- "$card" run --service 210 -- /bin/true
grep_out "no card is up" "run names the missing card"
expect 1 "status of no card" -- "$card" status
grep_out "locks: 0 of 30 present" "status creates no lock"
[ ! -e "$KT4_ROOT/KT4ShmMMap.mem" ] || { echo "FAIL: status created the file"; failures=$((failures + 1)); }

# Usage errors.
expect 2 "no command" -- "$card"
expect 2 "unknown command" -- "$card" launch
expect 2 "run without a service" -- "$card" run -- /bin/true
expect 2 "a word with a blank" -- "$card" run --service 210 -- /bin/echo "two words"
expect 0 "help" -- "$card" --help
grep_out "argv\[argc-8\]" "help documents the system words"

# Up, and up again.
expect 0 "up" -- "$card" up --size 4194304
grep_out "card up at $KT4_ROOT" "up names the card"
expect 1 "second up" -- "$card" up
grep_out "already up" "second up says why"
expect 0 "status of the card" -- "$card" status
grep_out "card at .* up$" "status says up"
grep_out "locks: 30 of 30" "every lock there"
grep_out "plain +0 +[0-9]+ +[0-9]+ +1 " "plain lock 0 starts free"
grep_out "plain +25 +[0-9]+ +[0-9]+ +0 " "plain lock 25 starts taken"
grep_out "rw +1 +[0-9]+ +[0-9]+ +3 " "reader-writer lock 1 starts at 3"

# Run: the program's words, then the 8 system words; its exit status comes back.
cat >"$work/words.sh" <<'SCRIPT'
#!/bin/sh
printf '%s\n' "$PPID" "$@" >"$KT4_ROOT/words"
exit 7
SCRIPT
chmod +x "$work/words.sh"
expect 7 "run passes the exit status" -- "$card" --slot 3 run --service 210 --instance 4 -- \
    "$work/words.sh" alpha beta
mapfile -t w <"$KT4_ROOT/words"
# w[0] parent pid, w[1..2] own words, w[3..10] system words
if [ "${#w[@]}" != 11 ] || [ "${w[1]}" != alpha ] || [ "${w[2]}" != beta ] ||
    [ "${w[5]}" != 210 ] || [ "${w[6]}" != 4 ] || [ "${w[7]}" != "${w[0]}" ] ||
    [ "${w[9]}" != 3 ] || [ "${w[10]}" != 4194304 ] || [ "${w[4]}" != 1 ]; then
    echo "FAIL: system words: ${w[*]}"
    failures=$((failures + 1))
fi
expect 127 "run of a missing program" -- "$card" run --service 210 -- "$work/nothing"
expect 126 "run of a file that is not executable" -- "$card" run --service 210 -- "$KT4_ROOT/words"

# A process on the card: status lists it, down refuses, a signal to kt4card reaches it.
"$card" run --service 211 -- "$server" >"$work/server.out" 2>&1 &
bg=$!
for _ in $(seq 1 200); do
    "$card" status >"$work/out" 2>&1
    grep -q "kt4guide_server" "$work/out" && break
    sleep 0.1
done
grep_out "processes: 1 running" "status lists the running process"
expect 1 "down while a process runs" -- "$card" down
grep_out "still run on the card" "down says why"
expect 125 "the same service twice" -- timeout 30 "$card" run --service 211 -- "$server"
grep_out "already runs on the card" "a second run of a service says why"
kill -TERM "$bg"
wait "$bg"
code=$?
bg=""
[ "$code" = 143 ] || { echo "FAIL: kt4card run after SIGTERM exited $code, expected 143"; failures=$((failures + 1)); }

expect 0 "down" -- "$card" down
grep_out "30 lock\(s\) and .* removed" "down removes locks and file"
expect 1 "status after down" -- "$card" status
expect 0 "down of nothing" -- "$card" down
grep_out "nothing to remove" "down of nothing says so"

# Leftovers of a card (a file without locks): up refuses, down clears them.
: >"$KT4_ROOT/KT4ShmMMap.mem"
expect 1 "up over leftovers" -- "$card" up
grep_out "leftovers" "up names the leftovers"
expect 0 "down of leftovers" -- "$card" down
expect 0 "up after clearing" -- "$card" up
expect 0 "final down" -- "$card" down

if [ "$failures" != 0 ]; then
    echo "kt4card_test: $failures failure(s)"
    exit 1
fi
echo "kt4card_test: all passed"
