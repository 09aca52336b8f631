#!/usr/bin/env bash
# Builds the library from one source tree in two different directories with SOURCE_DATE_EPOCH
# set and checks that the two libraries are the same bytes and that the build record carries
# the epoch's time and no path, user or host of the build.
#   reproducible.sh SOURCE_DIR WORK_DIR
set -euo pipefail
src=$1 work=$2
rm -rf "$work"
mkdir -p "$work"
export SOURCE_DATE_EPOCH=1700000000  # 2023-11-14 22:13:20 UTC
for d in one two/deeper; do
    # Debug: the debug information is where build paths would leak in.
    cmake -S "$src" -B "$work/$d" -DCMAKE_BUILD_TYPE=Debug -DOXEL_BUILD_TESTS=OFF \
        -DOXEL_BUILD_TOOLS=OFF -DOXEL_INSTALL=OFF >/dev/null
    cmake --build "$work/$d" --target oxel -j "$(nproc)" >/dev/null
done
a=$work/one/liboxel.so.1 b=$work/two/deeper/liboxel.so.1
if ! cmp "$a" "$b"; then
    echo "reproducible.sh: the two builds differ" >&2
    exit 1
fi
strings "$a" >"$work/strings.txt"  # not piped: grep -m1 would cut strings off under pipefail
record=$(grep -m1 'OXELPKG' "$work/strings.txt")
echo "$record"
case "$record" in
*"|build_time|2023-11-14 22:13:20|"*) ;;
*) echo "reproducible.sh: build_time is not the epoch's" >&2; exit 1 ;;
esac
if grep -q -a -F "$work" "$a"; then
    echo "reproducible.sh: the library names its build directory" >&2
    exit 1
fi
echo "reproducible.sh: the same $(stat -L -c %s "$a") bytes from both directories"
