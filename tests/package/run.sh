#!/usr/bin/env bash
# Installs a liboxel build tree into a scratch prefix, moves the installed tree elsewhere (it
# must not depend on where it was installed), then builds and runs C++ and C consumers against
# it through find_package(oxel) and through pkg-config; imports the Python module if installed.
#   run.sh BUILD_DIR CONSUMER_SOURCE_DIR WORK_DIR CXX_COMPILER [SANITIZERS]
# With --embed, the build tree is first made by a parent project (embed/) that embeds the
# source tree with add_subdirectory, as a static library, with GoogleTest hidden from it:
#   run.sh --embed OXEL_SOURCE_DIR CONSUMER_SOURCE_DIR WORK_DIR CXX_COMPILER
set -euo pipefail
embed=""
if [ "$1" = --embed ]; then
    embed=$2
    shift 2
    # Beside the work folder, which is emptied: a rerun rebuilds only what changed.
    set -- "${2%/}.build" "$@"
fi
build=$1 src=$2 work=$3 cxx=$4 sanitize=${5:-}
# The C compiler of the same family as the C++ one.
case "$cxx" in
*clang++*) cc=${cxx/clang++/clang} ;;
*g++*) cc=${cxx/g++/gcc} ;;
*) cc=cc ;;
esac

rm -rf "$work"
mkdir -p "$work"
flags=""
clibs=""
[ -n "$sanitize" ] && flags="-fsanitize=$sanitize"
# clang links C programs without the C++ parts of the sanitizer runtime the library needs.
case "$sanitize:$cc" in
?*:*clang*) clibs="-fsanitize-link-c++-runtime -lstdc++" ;;
esac

step() { echo "== $*"; }

if [ -n "$embed" ]; then
    step "embed the source tree in a parent project, static, without GoogleTest"
    cmake -S "$src/embed" -B "$build" -DOXEL_SOURCE_DIR="$embed" \
        -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" -DBUILD_SHARED_LIBS=OFF \
        -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON -DOXEL_WERROR=ON -DOXEL_INSTALL=ON \
        >"$work/embed.log" 2>&1 || { cat "$work/embed.log"; exit 1; }
    cmake --build "$build" -j 2 >>"$work/embed.log" 2>&1 || { cat "$work/embed.log"; exit 1; }
    "$build/consumer"
    "$build/consumer_c"
fi

step "install into $work/staged, then move it to $work/prefix"
cmake --install "$build" --prefix "$work/staged" >"$work/install.log"
mv "$work/staged" "$work/prefix"
prefix=$work/prefix
# The program is installed where it is built (not when embedded).
program=""
grep -q '^OXEL_BUILD_TOOLS:BOOL=ON$' "$build/CMakeCache.txt" && program=bin/oxel
for f in include/oxel/oxel.h include/oxel/oxel_c.h include/oxel/expression.h \
    include/oxel/package.h $program share/doc/oxel/LICENSE; do
    [ -e "$prefix/$f" ] || { echo "missing $f in the installed tree" >&2; exit 1; }
done
config=$(find "$prefix" -name oxelConfig.cmake | head -n 1)
pcfile=$(find "$prefix" -name oxel.pc | head -n 1)
[ -n "$config" ] || { echo "oxelConfig.cmake was not installed" >&2; exit 1; }
[ -n "$pcfile" ] || { echo "oxel.pc was not installed" >&2; exit 1; }
library=$(find "$prefix" -name 'liboxel.so.*' -o -name liboxel.a | head -n 1)
[ -n "$library" ] || { echo "the library was not installed" >&2; exit 1; }
libdir=$(dirname "$library")
static=""
if [[ $library == *.a ]]; then
    static=--static
    # What a static library needs must come with its imported target.
    for dep in Threads::Threads m; do
        grep -q "INTERFACE_LINK_LIBRARIES.*LINK_ONLY:$dep>" "$(dirname "$config")"/oxelTargets.cmake ||
            { echo "the static oxel::oxel does not carry $dep" >&2; exit 1; }
    done
fi
if grep -q "$work/staged" -r "$prefix" --include='*.pc' --include='*.cmake'; then
    echo "the installed package still names the staging prefix" >&2
    exit 1
fi

step "find_package consumers (C++ and C)"
cmake -S "$src" -B "$work/cmake-consumer" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_C_FLAGS="$flags" -DCMAKE_EXE_LINKER_FLAGS="$flags" \
    -DCMAKE_C_STANDARD_LIBRARIES="$clibs" \
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF >"$work/cmake-consumer.log"
cmake --build "$work/cmake-consumer" >>"$work/cmake-consumer.log"
"$work/cmake-consumer/consumer"
"$work/cmake-consumer/consumer_c"

step "pkg-config consumers (C++ and C)"
pc() { PKG_CONFIG_PATH=$(dirname "$pcfile") pkg-config "$@"; }
pc --exists oxel
[ "$(pc --modversion oxel)" = "$(sed -n 's/^Version: //p' "$pcfile")" ]
# The flags must lead into the moved tree, with no help from the command line.
[ "$(realpath "$(pc --variable=includedir oxel)")" = "$(realpath "$prefix/include")" ]
# shellcheck disable=SC2046
"$cxx" -std=c++17 $flags $(pc --cflags oxel) "$src/consumer.cpp" -o "$work/pc-consumer" $(pc $static --libs oxel)
# shellcheck disable=SC2046
"$cc" -std=c99 -Wall -Wextra -pedantic -Werror $flags $(pc --cflags oxel) "$src/consumer.c" \
    -o "$work/pc-consumer-c" $(pc $static --libs oxel) $clibs
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"
LD_LIBRARY_PATH=$libdir "$work/pc-consumer-c"

if [ -n "$static" ] && ldd "$work/cmake-consumer/consumer" "$work/pc-consumer-c" | grep -q liboxel; then
    echo "a consumer of the static library still loads liboxel" >&2
    exit 1
fi

if [ -n "$program" ]; then
    step "installed program"
    env -u LD_LIBRARY_PATH "$prefix/bin/oxel" eval 'pow(x,2) + 1' x=3 | grep -qx 10
fi

module=$(find "$prefix" -path '*/oxel/_oxel*.so' | head -n 1)
if [ -n "$module" ]; then
    step "installed Python module"
    python=$(sed -n 's/^OXEL_PYTHON:FILEPATH=//p' "$build/CMakeCache.txt")
    site=$(dirname "$(dirname "$module")")
    env -u LD_LIBRARY_PATH PYTHONPATH="$site" "${python:-python3}" -c \
        'import oxel; assert oxel.Expression("x*x + 1", ["x"]).derivative("x").eval(x=3.0) == (6.0, 0)'
fi
echo "package test passed"
