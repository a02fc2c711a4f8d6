#!/usr/bin/env bash
# Runs a usage page's example as its page says: on a card brought up for it, started by
# "kt4card run", beside the card servers it needs. Runs in a fresh System V IPC namespace (and
# network namespace) where the host allows it.
#
#   run_on_card.sh KT4CARD SERVICE EXAMPLE [SERVICE=SERVER_PROGRAM[,WORD...]]...
#     passes when the example exits 0 and the card comes down cleanly
set -uo pipefail

if [ -z "${KT4_DOCS_CARD_INNER:-}" ]; then
    export KT4_DOCS_CARD_INNER=1
    if unshare --ipc --net true 2>/dev/null && command -v ip >/dev/null; then
        exec unshare --ipc --net bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
    elif unshare --ipc true 2>/dev/null; then
        exec unshare --ipc "$0" "$@"
    fi
    export KT4_SYSV_KEY_OFFSET=$((0x34000000 + ($$ % 100000) * 128))
fi
card=$1
service=$2
example=$3
shift 3

work=$(mktemp -d)
export KT4_ROOT=$work/card
servers=()
cleanup() {
    for pid in "${servers[@]}"; do
        kill -TERM "$pid" 2>/dev/null
    done
    for pid in "${servers[@]}"; do
        wait "$pid" 2>/dev/null
    done
    "$card" down --force >/dev/null 2>&1
    rm -rf "$work"
}
trap cleanup EXIT

"$card" up >"$work/up.out" 2>&1 || { cat "$work/up.out"; echo "run_on_card: kt4card up failed"; exit 1; }
for server_arg in "$@"; do
    IFS=, read -r -a server <<<"${server_arg#*=}"
    "$card" run --service "${server_arg%%=*}" -- "${server[@]}" >"$work/server.${server_arg%%=*}.out" 2>&1 &
    servers+=("$!")
done
timeout 60 "$card" run --service "$service" -- "$example" docs
code=$?
if [ "$code" != 0 ]; then
    echo "run_on_card: $(basename "$example") exited $code"
    for f in "$work"/server.*.out; do
        [ -e "$f" ] && { echo "---- $f"; cat "$f"; }
    done
    exit 1
fi
exit 0
