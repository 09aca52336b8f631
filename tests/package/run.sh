#!/usr/bin/env bash
# Installs a liboxel build tree into a scratch prefix, then builds and runs two out-of-tree
# consumers against it: one through find_package(oxel), one through pkg-config.
#   run.sh BUILD_DIR CONSUMER_SOURCE_DIR WORK_DIR CXX_COMPILER [SANITIZERS]
set -euo pipefail
build=$1 src=$2 work=$3 cxx=$4 sanitize=${5:-}

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
flags=""
[ -n "$sanitize" ] && flags="-fsanitize=$sanitize"

step() { echo "== $*"; }

step "install into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log"
for f in include/oxel/oxel.h include/oxel/expression.h include/oxel/package.h bin/oxel; do
    [ -e "$prefix/$f" ] || { echo "missing $f in the installed tree" >&2; exit 1; }
done
config=$(find "$prefix" -name oxelConfig.cmake | head -n 1)
pcfile=$(find "$prefix" -name oxel.pc | head -n 1)
[ -n "$config" ] || { echo "oxelConfig.cmake was not installed" >&2; exit 1; }
[ -n "$pcfile" ] || { echo "oxel.pc was not installed" >&2; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'liboxel.so.*' | head -n 1)")

step "find_package consumer"
cmake -S "$src" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/cmake-consumer.log"
cmake --build "$work/cmake-consumer" >>"$work/cmake-consumer.log"
"$work/cmake-consumer/consumer"

step "pkg-config consumer"
# The .pc file names its install prefix; point it at the scratch prefix instead.
pc() { PKG_CONFIG_PATH=$(dirname "$pcfile") pkg-config --define-variable=prefix="$prefix" "$@"; }
pc --exists oxel
[ "$(pc --modversion oxel)" = "$(sed -n 's/^Version: //p' "$pcfile")" ]
# shellcheck disable=SC2046
"$cxx" -std=c++17 $flags $(pc --cflags oxel) "$src/consumer.cpp" -o "$work/pc-consumer" $(pc --libs oxel)
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"

step "installed program"
env -u LD_LIBRARY_PATH "$prefix/bin/oxel" eval 'pow(x,2) + 1' x=3 | grep -qx 10
echo "package test passed"
