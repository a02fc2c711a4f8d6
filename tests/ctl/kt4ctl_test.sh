#!/usr/bin/env bash
# kt4ctl from the outside: a card brought up by kt4card with one process on it that holds an
# event-log key, an SWP queue and two locks; kt4ctl must show them (text and JSON), agree with
# kt4trace and with the queue's own dump, and fail cleanly on a missing, truncated, garbage or damaged file. Runs in a fresh System V IPC
# namespace where the host allows it.
#
#   kt4ctl_test.sh KT4CTL KT4CARD KT4TRACE PEER
set -uo pipefail
ctl=$1
card=$2
trace=$3
peer=$4

if [ -z "${KT4_CTL_TEST_INNER:-}" ]; then
    export KT4_CTL_TEST_INNER=1
    # A network namespace of its own too: the card's address (chassis 0, slot 0) is then ours.
    if unshare --ipc --net true 2>/dev/null && command -v ip >/dev/null; then
        exec unshare --ipc --net bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
    elif unshare --ipc true 2>/dev/null; then
        exec unshare --ipc "$0" "$@"
    fi
    export KT4_SYSV_KEY_OFFSET=$((0x34000000 + ($$ % 100000) * 128))
fi

work=$(mktemp -d)
export KT4_ROOT=$work/card
bg=""
cleanup() {
    exec 3>&- 2>/dev/null
    [ -n "$bg" ] && kill "$bg" 2>/dev/null && wait "$bg" 2>/dev/null
    "$card" down --force >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT

failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
# expect CODE DESCRIPTION -- COMMAND...: runs it, standard output in $work/out, error in $work/err
expect() {
    local want=$1 what=$2
    shift 3
    "$@" >"$work/out" 2>"$work/err"
    local got=$?
    if [ "$got" != "$want" ]; then
        fail "$what: exit $got, expected $want"
        sed 's/^/    /' "$work/out" "$work/err"
    fi
}
grep_in() { # FILE PATTERN DESCRIPTION
    grep -Eq -- "$2" "$1" || { fail "$3: no '$2' in"; sed 's/^/    /' "$1"; }
}
# json_check DESCRIPTION PYTHON-EXPRESSION: $work/out is one JSON document (d) for which the
# expression holds; the variables pid and evkey are the peer's.
json_check() {
    python3 - "$work/out" "$1" "$2" "${peer_pid:-0}" "${evkey:-0}" <<'PY' || failures=$((failures + 1))
import json, sys
path, what, expr, pid, evkey = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), int(sys.argv[5])
try:
    d = json.load(open(path))
except ValueError as e:
    print("FAIL: %s: not one JSON document: %s" % (what, e)); sys.exit(1)
if not eval(expr):
    print("FAIL: %s: %s does not hold for" % (what, expr)); print(json.dumps(d, indent=1)[:3000]); sys.exit(1)
PY
}

# No card: a message and status 1, nothing created.
expect 1 "no card" -- "$ctl" locks
grep_in "$work/err" "kt4ctl: .*KT4ShmMMap.mem: no such file" "a missing card is named"
expect 2 "unknown command" -- "$ctl" frobnicate
expect 2 "a command takes no word" -- "$ctl" tasks extra

expect 0 "up" -- "$card" up --size 4194304
mkfifo "$work/in"
"$card" run --service 240 --instance 3 --name ctlpeer -- "$peer" <"$work/in" >"$work/peer" 2>&1 &
bg=$!
exec 3>"$work/in"
for _ in $(seq 1 300); do
    grep -q '^ready' "$work/peer" && break
    sleep 0.1
done
read -r _ evkey peer_pid < <(grep '^ready' "$work/peer")
[ -n "${peer_pid:-}" ] || { fail "the peer never became ready"; cat "$work/peer"; exit 1; }

expect 0 "locks --json" -- "$ctl" --json locks
json_check "plain lock 20 taken by the peer" \
    "[(s['value'], [(h['pid'], h['units'], h['alive']) for h in s['holders']]) for s in d['locks']['sets'] if s['kind'] == 'plain' and s['number'] == 20] == [(0, [(pid, 1, True)])]"
json_check "reader-writer lock 0 read by the peer" \
    "[(s['value'], [h['pid'] for h in s['holders']]) for s in d['locks']['sets'] if s['kind'] == 'rw' and s['number'] == 0] == [(2, [pid])]"
json_check "30 sets, lock 25 starts taken" \
    "d['locks']['present'] == 30 and len(d['locks']['sets']) == 30 and d['locks']['sets'][25]['value'] == 0"
expect 0 "tasks --json" -- "$ctl" --json tasks
json_check "the peer's task entry" \
    "[(t['pid'], t['alive'], t['state']) for t in d['tasks']['entries'] if t['service'] == 240 and t['instance'] == 3] == [(pid, True, 'open')]"
expect 0 "evkeys --json" -- "$ctl" evkeys --json
json_check "the peer's event-log key" \
    "[(k['key'], k['service'], k['instance'], k['pid'], k['mask'] & 0x5A) for k in d['evkeys']['keys']] == [(evkey, 240, 3, pid, 0x5A)]"
expect 0 "all --json" -- "$ctl" --json all
json_check "all holds every section" \
    "all(k in d for k in ('area', 'locks', 'tasks', 'evkeys', 'swp', 'trace')) and len(d['trace']['rings']) == 2"
expect 0 "all as text" -- "$ctl" all
grep_in "$work/out" "^ +240 +3 +0 +$peer_pid +[0-9]+ +open " "the text shows the task"
grep_in "$work/out" "^ +plain +20 .* $peer_pid \(1 unit\)" "the text shows the holder"

# swp is the queue table as the queue's own process dumps it with kt4SwpPrintAllq.
sed -n '/^swp-begin$/,/^swp-end$/p' "$work/peer" | sed '1d;$d' >"$work/swp.want"
grep -q "^qHandle" "$work/swp.want" || fail "the peer dumped no queue"
expect 0 "swp" -- "$ctl" swp
cmp -s "$work/out" "$work/swp.want" || { fail "kt4ctl swp differs from the peer's dump"; diff "$work/swp.want" "$work/out"; }
expect 0 "swp --json" -- "$ctl" --json swp
json_check "the peer's queue" \
    "[(q['ipc: send serv'], q['ipc: send inst'], q['ipc: recv inst'], q['Task ID'], q['ICL Enabled']) for q in d['swp']['queues']] == [(240, 4, 3, pid, False)]"

# trace is kt4trace: the same slots for the same options.
expect 0 "kt4trace" -- "$trace" -a -m tme
cp "$work/out" "$work/trace.want"
[ -s "$work/trace.want" ] || fail "kt4trace replayed nothing of the task manager"
expect 0 "kt4ctl trace" -- "$ctl" trace -a -m tme
cmp -s "$work/out" "$work/trace.want" || fail "kt4ctl trace differs from kt4trace"
expect 2 "trace with a bad kind" -- "$ctl" trace -k 99

# Damaged copies of the live file. Header: 40 bytes, then 16-byte slots (be64 offset, size).
file=$KT4_ROOT/KT4ShmMMap.mem
head -c 100000 "$file" >"$work/short"
expect 1 "truncated file" -- "$ctl" -f "$work/short" --json all
grep_in "$work/err" "truncated" "a truncated file is named as such"
[ -s "$work/out" ] && fail "a truncated file gave output: $(head -c 200 "$work/out")"
head -c 8192 /dev/urandom >"$work/garbage"
expect 1 "garbage file" -- "$ctl" -f "$work/garbage" locks
grep_in "$work/err" "bad magic" "garbage is refused at the header"
cp "$file" "$work/damaged"
python3 - "$work/damaged" <<'PY'
import struct, sys
f = open(sys.argv[1], "r+b")
img = bytearray(f.read())
slot = lambda t: struct.unpack_from(">QQ", img, 40 + 16 * t)
# Task table (slot 4): a hostile name in the peer's entry (entries of 124 bytes after 32;
# service and instance at 8 and 12, the name at 56).
off, size = slot(4)
for e in range(off + 32, off + size - 123, 124):
    if struct.unpack_from(">II", img, e + 8) == (240, 3):
        img[e + 56:e + 66] = b'x"\\\x01\xff\n\x7fend'
# Key registry (slot 6): the first key's link points back at itself.
off, size = slot(6)
first = struct.unpack_from(">I", img, off + 4)[0]
struct.pack_into(">I", img, off + 64 + 64 * first + 60, first)
# SWP queue table (slot 5): a block count of another layout.
off, size = slot(5)
struct.pack_into(">I", img, off, 7)
# Lock holders (slot 7): beyond the end of the area.
struct.pack_into(">QQ", img, 40 + 16 * 7, len(img) - 16, 4096)
f.seek(0); f.write(img)
PY
expect 1 "damaged tables" -- "$ctl" -f "$work/damaged" --json all
json_check "a hostile name stays valid JSON" \
    "[t['name'] for t in d['tasks']['entries'] if (t['service'], t['instance']) == (240, 3)] == ['x\"\\\\\\x01\\xff\\n\\x7fend']"
json_check "each damaged table says why, the rest is shown" \
    "'damaged' in d['evkeys']['error'] and 'layout' in d['swp']['error'] and d['swp']['queues'] == [] and 'outside' in d['locks']['error'] and d['locks']['sets'][20]['value'] == 0 and 'error' not in d['tasks']"
expect 1 "damaged tables as text" -- "$ctl" -f "$work/damaged" all
grep_in "$work/err" "event-log keys: key registry's in-use list is damaged" "the damaged list is named"
grep_in "$work/out" "x\"\\\\\?\?\?\?end" "a hostile name is printed harmlessly"

# The peer ends: its lock comes back free, its key is gone.
exec 3>&-
wait "$bg"
code=$?
bg=""
[ "$code" = 0 ] || fail "the peer exited $code"
expect 0 "locks after the peer" -- "$ctl" --json locks
json_check "lock 20 free again" \
    "[(s['value'], s['holders']) for s in d['locks']['sets'] if s['kind'] == 'plain' and s['number'] == 20] == [(1, [])]"

if [ "$failures" != 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "kt4ctl: all checks passed"
