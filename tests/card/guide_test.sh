#!/usr/bin/env bash
# Follows docs/getting-started.md word for word: runs the shell block that follows the
# "run word for word" marker, from a directory whose build/normal is the build under test,
# in a fresh System V IPC namespace (and a network namespace of its own where the host allows
# it, so that the card's UDP ports meet nobody else's), then checks what the guide promises.
#
#   guide_test.sh BUILD_DIR GUIDE
set -euo pipefail
build=$(cd "$1" && pwd)
guide=$2

if [ -z "${KT4_GUIDE_INNER:-}" ]; then
    export KT4_GUIDE_INNER=1
    if unshare --ipc --net true 2>/dev/null && command -v ip >/dev/null; then
        exec unshare --ipc --net bash -c 'ip link set lo up && exec "$0" "$@"' "$0" "$@"
    elif unshare --ipc true 2>/dev/null; then
        exec unshare --ipc "$0" "$@"
    fi
    # No namespace for us: keys of our own at least.
    export KT4_SYSV_KEY_OFFSET=$((0x32000000 + ($$ % 100000) * 128))
    echo "guide_test: no unshare; running with System V key offset $KT4_SYSV_KEY_OFFSET"
fi

block=$(awk '/run word for word/ { armed = 1; next }
             armed && /^```sh/ { inside = 1; next }
             inside && /^```/ { exit }
             inside { print }' "$guide")
if [ -z "$block" ]; then
    echo "guide_test: no marked shell block in $guide" >&2
    exit 1
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/build"
ln -s "$build" "$work/build/normal"
cd "$work"
echo "---- the guide's commands"
printf '%s\n' "$block"
echo "----"
out="$work/out.txt"
if ! bash -euo pipefail -c "$block" >"$out" 2>&1; then
    cat "$out"
    echo "guide_test: the guide's commands failed" >&2
    # Whatever the block left behind.
    build/normal/kt4card down --force >/dev/null 2>&1 || true
    exit 1
fi
cat "$out"
fail=0
for want in "card up at" "card at .* up$" "'hello' -> 'HELLO'" "'card' -> 'CARD'" \
    "server: goodbye after 2 request" "plain +25 +[0-9]+ +[0-9]+ +0 " "down: 30 lock"; do
    grep -Eq -- "$want" "$out" || {
        echo "guide_test: missing from the output: $want" >&2
        fail=1
    }
done
exit $fail
