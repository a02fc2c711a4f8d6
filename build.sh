#!/usr/bin/env bash
# Builds and runs kt4SysSsCpRp on a fresh Debian machine.
#
#   ./build.sh demo   build, then run the demo (a simulated card's control processes)
#   ./build.sh test   install what is missing, then build and run every test: a normal build,
#                     an ASan+UBSan build, the threading directories under TSan, and the fuzz
#                     targets for a short bounded time on their committed corpora
#   ./build.sh bench  build and run the benchmarks
#   ./build.sh soak   build, then run the demo card's soak (10 minutes; not part of the tests)
set -euo pipefail
cd "$(dirname "$0")"
top=$PWD
jobs=$(nproc 2>/dev/null || echo 2)

# Directories whose tests run under ThreadSanitizer too.
TSAN_DIRS="vx2bsd timer platform log mem ipc tme evt evtlogd swp cfg cfgd containers radix ifm"

need_packages() {
    local pkgs="cmake ninja-build g++ clang libclang-rt-14-dev libgtest-dev libgmock-dev libbenchmark-dev libsqlite3-dev ccache pkg-config iproute2"
    local missing=""
    for p in $pkgs; do
        dpkg -s "$p" >/dev/null 2>&1 || missing="$missing $p"
    done
    if [ -n "$missing" ]; then
        echo "== installing:$missing"
        local sudo=""
        [ "$(id -u)" -ne 0 ] && sudo=sudo
        $sudo apt-get update -qq
        DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq $missing
    fi
}

configure() { # dir, extra cmake args...
    local dir=$1
    shift
    cmake -S "$top" -B "$top/build/$dir" -G Ninja "$@" >/dev/null
}

build_normal() {
    configure normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
    cmake --build build/normal -j "$jobs"
}

run_ctest() { # dir
    (cd "build/$1" && ctest -j "$jobs" --output-on-failure --timeout 600)
}

case "${1:-}" in
demo)
    need_packages
    build_normal
    shift
    exec build/normal/examples/card/kt4democard "$@"
    ;;
test)
    need_packages
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
    echo "== normal build"
    build_normal
    run_ctest normal
    # CTest runs every case in a process of its own; once more, each binary runs all its cases
    # in one process, in a random order and twice, to catch state left from one case to the
    # next (KT4_SHUFFLE_SEED repeats a given order).
    seed=${KT4_SHUFFLE_SEED:-$((RANDOM + 1))}
    echo "== shuffled and repeated (gtest seed $seed)"
    find build/normal -type f -name 'test_*' -perm -u+x | sort | while read -r b; do
        echo "-- ${b#build/normal/}"
        (cd "$(dirname "$b")" && timeout 900 "./$(basename "$b")" --gtest_shuffle \
            --gtest_random_seed="$seed" --gtest_repeat=2 --gtest_brief=1) ||
            { echo "== $b failed with --gtest_random_seed=$seed" >&2; exit 1; }
    done
    echo "== ASan+UBSan build"
    configure asan -DCMAKE_BUILD_TYPE=Debug -DKT4_SANITIZE=address -DKT4_BUILD_BENCH=OFF
    cmake --build build/asan -j "$jobs"
    run_ctest asan
    echo "== TSan build ($TSAN_DIRS)"
    configure tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKT4_SANITIZE=thread -DKT4_BUILD_BENCH=OFF \
        -DKT4_BUILD_EXAMPLES=OFF "-DKT4_TEST_DIRS=$(echo $TSAN_DIRS | tr ' ' ';')"
    cmake --build build/tsan -j "$jobs"
    run_ctest tsan
    echo "== fuzz targets"
    CC=clang CXX=clang++ configure fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKT4_BUILD_FUZZ=ON \
        -DKT4_BUILD_TESTS=OFF -DKT4_BUILD_BENCH=OFF -DKT4_BUILD_EXAMPLES=OFF
    cmake --build build/fuzz -j "$jobs"
    for f in build/fuzz/fuzz_*; do
        [ -x "$f" ] || continue
        name=${f##*/fuzz_}
        corpus=fuzz/corpus/$name
        mkdir -p "build/fuzz/corpus-$name"
        echo "-- $name"
        "$f" -max_total_time="${KT4_FUZZ_SECONDS:-20}" -print_final_stats=0 \
            "build/fuzz/corpus-$name" $([ -d "$corpus" ] && echo "$corpus") 2>&1 | tail -n 3
    done
    echo "== all tests passed"
    ;;
bench)
    need_packages
    build_normal
    for b in build/normal/bench_*; do
        [ -x "$b" ] && "$b"
    done
    ;;
soak)
    # The demo card for 10 minutes at 5% loss (or: ./build.sh soak SECONDS LOSS), each of its
    # processes killed once and started again, in a System V namespace of its own.
    need_packages
    build_normal
    shift
    soak="examples/card/soak.sh build/normal/examples/card/kt4democard $*"
    if unshare --ipc true 2>/dev/null; then
        exec unshare --ipc sh -c "$soak"
    fi
    echo "== no private System V namespace here (unshare --ipc): the counts include others'"
    exec sh -c "$soak"
    ;;
*)
    echo "usage: $0 demo|test|bench|soak" >&2
    exit 2
    ;;
esac
