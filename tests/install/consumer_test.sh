#!/usr/bin/env bash
# Installs this build under a fresh prefix, then builds a C-only project outside the tree
# against it: with CMake (kt4::SysSsCpRp and kt4::SysSsCpRp_static) and with pkg-config
# (shared, then static with the shared library taken away so that only the .pc's private
# libraries can complete the link). Each program must run.
#
#   consumer_test.sh BUILD_DIR SOURCE_DIR GENERATOR C_COMPILER "SANITIZER FLAGS"
set -euo pipefail
build=$1
src=$2
generator=$3
cc=$4
sanflags=${5:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
step() { echo "== $*"; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
libdir=$(dirname "$(find "$prefix" -name kt4SysSsCpRp.pc)")
libdir=${libdir%/pkgconfig}

step "CMake project (C only)"
cmake -S "$src/consumer" -B "$work/cmake" -G "$generator" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_FLAGS="$sanflags" \
    -DCMAKE_EXE_LINKER_FLAGS="$sanflags" >"$work/cmake.log" ||
    { cat "$work/cmake.log"; exit 1; }
cmake --build "$work/cmake" || exit 1
"$work/cmake/consumer_shared"
"$work/cmake/consumer_static"
# The static program carries the library: it must not need the shared one.
if ldd "$work/cmake/consumer_static" | grep -q libkt4SysSsCpRp; then
    echo "consumer_static is linked against the shared library" >&2
    exit 1
fi

step "pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
pc_prefix=$(pkg-config --variable=prefix kt4SysSsCpRp)
if [ "$(cd "$pc_prefix" && pwd -P)" != "$(cd "$prefix" && pwd -P)" ]; then
    echo "the .pc file names prefix $pc_prefix, installed under $prefix" >&2
    exit 1
fi
# shellcheck disable=SC2046
"$cc" -std=c11 $sanflags $(pkg-config --cflags kt4SysSsCpRp) "$src/consumer/main.c" \
    -o "$work/pc_shared" $(pkg-config --libs kt4SysSsCpRp) -Wl,-rpath,"$libdir"
"$work/pc_shared"
rm -f "$libdir"/libkt4SysSsCpRp.so*
# shellcheck disable=SC2046
"$cc" -std=c11 $sanflags $(pkg-config --cflags kt4SysSsCpRp) "$src/consumer/main.c" \
    -o "$work/pc_static" $(pkg-config --static --libs kt4SysSsCpRp)
"$work/pc_static"
echo "consumer_test: all passed"
