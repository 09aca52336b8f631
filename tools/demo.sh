#!/usr/bin/env bash
# Runs the oxel program on a few examples: evaluate, differentiate, simplify, print, tabulate,
# list names.
#   demo.sh [PATH_TO_OXEL]      (default: build/oxel)
set -uo pipefail
OXEL=${1:-build/oxel}
if [ ! -x "$OXEL" ]; then
    echo "demo.sh: no oxel program at '$OXEL' (build first: ./build.sh)" >&2
    exit 1
fi

failures=0
# Prints the command as typed, then its output and a non-zero exit status.
show() {
    local line="\$ oxel"
    for a in "$@"; do
        case "$a" in
        *[!A-Za-z0-9_=.:,/+-]*) line+=" '$a'" ;;
        *) line+=" $a" ;;
        esac
    done
    echo "$line"
    "$OXEL" "$@" 2>&1
    local status=$?
    [ $status -ne 0 ] && echo "(exit status $status)"
    echo
    return $status
}
# Same, but the example is meant to succeed.
run() {
    show "$@" || failures=$((failures + 1))
}

echo "== evaluate"
run eval 'sin(x)*y + 1' x=0.5 y=2
run eval 'pow(2, 10) - (2 ^ 10)' # ^ is exclusive or; powers are pow()
run eval 'r = hypot(a, b); r*r' a=3 b=4
run eval 'v*2' --alias v=velocity velocity=1.5

echo "== differentiate (the other names need no declaring)"
run diff 'pow(x,3)*y' x
run diff 'pow(x,3)*y' x --simplify
run diff 'pow(x,3)*y' x --simplify --tree   # the library's own print of the tree
run diff 'sin(x)*exp(-x/4)' x --simplify
echo "# what diff prints reads back:"
run eval "$("$OXEL" diff 'pow(x,3)' x --simplify)" x=2

echo "== simplify and print"
run simplify '2+3*x*1'
run simplify '1/3 + x'
run print 'a-(b-c) + sqrt(a)*ln(b)'
run names 'r = hypot(a, b); r*r + sinx'

echo "== a short table"
run table 'sin(x)*exp(-x/4)' x=0:3:0.5
run table 'x*y' x=1:2 y=0:1:0.5

echo "== errors are reported, with an exit status"
show eval '1/x' x=0 || true
show eval '1/x' x=0 --value || true
show eval 'x*y' x=1 || true
show eval 'sin(x) + cos x' x=1 || true
show table x x=0:1:0 || true

if [ $failures -ne 0 ]; then
    echo "demo.sh: $failures example(s) failed" >&2
    exit 1
fi
