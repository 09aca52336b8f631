#!/usr/bin/env bash
# Replays the regression inputs, then fuzzes every target for S seconds from a copy of its seeds.
#
#   fuzz/run.sh BUILD_DIR [SECONDS] [TARGET...]
#
# Targets run one after another; new inputs go to a temporary directory, never into the
# repository's corpus. A crash, leak, timeout or failed property stops with status 1 and
# leaves the reproducer in the work directory, whose path is printed.
set -euo pipefail

BUILD=${1:?usage: fuzz/run.sh BUILD_DIR [SECONDS] [TARGET...]}
SECONDS_EACH=${2:-30}
shift $(($# > 1 ? 2 : 1))
HERE=$(cd "$(dirname "$0")" && pwd)
BIN_DIR=$(cd "$BUILD" && pwd)/fuzz

if [ $# -gt 0 ]; then
    TARGETS=("$@")
else
    TARGETS=()
    for bin in "$BIN_DIR"/*_fuzz; do
        [ -x "$bin" ] && TARGETS+=("$(basename "$bin")")
    done
fi
[ ${#TARGETS[@]} -gt 0 ] || { echo "run.sh: no fuzz targets in $BIN_DIR" >&2; exit 2; }

WORK=$(mktemp -d "${TMPDIR:-/tmp}/oxel-fuzz.XXXXXX")
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:symbolize=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Text inputs must reach past the lexer's 8192-character chunk.
max_len_of() {
    case "$1" in
    hashtable_fuzz) echo 1024 ;;
    *) echo 20000 ;;
    esac
}

status=0
for t in "${TARGETS[@]}"; do
    bin="$BIN_DIR/$t"
    dir="$WORK/$t"
    mkdir -p "$dir/corpus" "$dir/artifacts"
    seeds="$HERE/corpus/$t"
    [ -d "$seeds" ] || seeds="$HERE/corpus/expression_fuzz"
    cp "$seeds"/* "$dir/corpus/" 2>/dev/null || true
    common=(-max_len="$(max_len_of "$t")" -timeout=10 -rss_limit_mb=2560
            -artifact_prefix="$dir/artifacts/" -close_fd_mask=2)

    if [ -d "$HERE/regressions/$t" ] && [ -n "$(ls -A "$HERE/regressions/$t")" ]; then
        echo "== $t: replaying $(ls "$HERE/regressions/$t" | wc -l) regression inputs"
        if ! "$bin" "${common[@]}" -runs=0 "$HERE/regressions/$t"/* >"$dir/replay.log" 2>&1; then
            echo "run.sh: $t fails on a regression input, see $dir/replay.log" >&2
            tail -n 40 "$dir/replay.log" >&2
            status=1
            continue
        fi
    fi

    echo "== $t: fuzzing for ${SECONDS_EACH}s from $(ls "$dir/corpus" | wc -l) seeds"
    if "$bin" "${common[@]}" -max_total_time="$SECONDS_EACH" -print_final_stats=1 \
        "$dir/corpus" >"$dir/fuzz.log" 2>&1; then
        runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$dir/fuzz.log" | grep -o '[0-9]*$' || echo "?")
        echo "   $t: $runs executions, corpus now $(ls "$dir/corpus" | wc -l) inputs, no findings"
    else
        echo "run.sh: $t found a problem; reproducer(s) in $dir/artifacts, log $dir/fuzz.log" >&2
        grep -E 'ERROR|SUMMARY|property failed|Test unit written' "$dir/fuzz.log" | head -n 20 >&2 || true
        status=1
    fi
done

[ $status -eq 0 ] && rm -rf "$WORK"
exit $status
