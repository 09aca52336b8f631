#!/usr/bin/env bash
# One entry point for building, demonstrating and testing liboxel on Debian.
#
#   ./build.sh              install what is missing, build, run the oxel program on examples
#   ./build.sh test         install what is missing, build, run the whole test suite
#   ./build.sh test --sanitize   also build and run the suite under ASan + UBSan (clang and GCC)
#   ./build.sh test --tsan       also build and run the thread tests under TSan
#   ./build.sh test --fuzz[=S]   also run every fuzz target for S seconds (default 30)
#   ./build.sh test --ci         all of the above, and build (not run) the benchmark: what CI runs
#   ./build.sh bench        build and run the benchmark against muparser and fparser
#   ./build.sh bench-python run the Python module against numexpr and numpy (10^7 elements)
set -euo pipefail
cd "$(dirname "$0")"

MODE=demo
SANITIZE=0
TSAN=0
FUZZ_SECONDS=0
BUILD_BENCH=0
for arg in "$@"; do
    case "$arg" in
    demo | test | bench | bench-python) MODE=$arg ;;
    --sanitize) SANITIZE=1 ;;
    --tsan) TSAN=1 ;;
    --fuzz) FUZZ_SECONDS=30 ;;
    --fuzz=*) FUZZ_SECONDS=${arg#--fuzz=} ;;
    --ci) SANITIZE=1 TSAN=1 FUZZ_SECONDS=30 BUILD_BENCH=1 ;;
    -h | --help)
        sed -n '2,12p' "$0" | sed 's/^# \{0,1\}//'
        exit 0
        ;;
    *)
        echo "build.sh: unknown argument '$arg' (try --help)" >&2
        exit 2
        ;;
    esac
done

JOBS=$(nproc 2>/dev/null || echo 2)

# Installs the Debian packages that are not there yet (needs root or sudo).
need_packages() {
    local missing=()
    for p in "$@"; do
        dpkg -s "$p" >/dev/null 2>&1 || missing+=("$p")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    echo "build.sh: installing ${missing[*]}" >&2
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

need_packages build-essential cmake flex bison libgtest-dev pkg-config
# The machine-code back end of eval (headers only, needed at build time alone).
need_packages libxbyak-dev
# The Python module and its tests (numpy, Dask, pytest, the pip install check), all from Debian.
need_packages python3 python3-dev pybind11-dev python3-numpy python3-pytest python3-dask \
    python3-distributed python3-setuptools python3-wheel python3-venv python3-pip python3-build \
    python3-pandas python3-scipy
if [ "$MODE" = bench-python ]; then
    need_packages python3-numexpr
fi
if [ "$SANITIZE$TSAN" != "00" ] || [ "$FUZZ_SECONDS" != 0 ]; then
    need_packages clang libclang-rt-14-dev
fi
if [ "$MODE" = bench ] || [ "$BUILD_BENCH" = 1 ]; then
    need_packages libbenchmark-dev libmuparser-dev libfparser-dev
fi

# The locale tests need a decimal-comma locale; generate one where none is installed.
need_comma_locale() {
    locale -a 2>/dev/null | grep -qi '^de_DE\.utf-\?8$' && return 0
    need_packages locales
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    $sudo localedef -i de_DE -f UTF-8 de_DE.UTF-8 >/dev/null 2>&1 || true
}
if [ "$MODE" = test ]; then
    need_comma_locale
fi

# Wall time of each phase, printed as it ends and summed up at the end.
PHASES=()
T_START=$(date +%s)
phase() {
    local name=$1 t0
    shift
    t0=$(date +%s)
    echo "== build.sh: $name" >&2
    "$@"
    local secs=$(($(date +%s) - t0))
    PHASES+=("$(printf '%5d s  %s' "$secs" "$name")")
    echo "== build.sh: $name took ${secs} s" >&2
}
report_phases() {
    echo "== build.sh: phase times" >&2
    for p in "${PHASES[@]}"; do echo "   $p" >&2; done
    echo "   $(printf '%5d s  total' $(($(date +%s) - T_START)))" >&2
}

# configure DIR [cmake options...] then build it (all targets, or those of TARGETS).
TARGETS=()
build_tree() {
    local dir=$1 targets=()
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOXEL_WERROR=ON "$@" >/dev/null
    for t in "${TARGETS[@]}"; do targets+=(--target "$t"); done
    cmake --build "$dir" -j "$JOBS" "${targets[@]}"
}

# Sanitizer trees: line tables suffice for the reports' stack traces. -O1 keeps every finding
# of ASan, UBSan and TSan (their documented level) and compiles faster; the clang tree stays at
# -O2 because it also fuzzes, where executions per second count. (The threaded interpreter is
# compiled at -O0 in every sanitizer tree: see CMakeLists.txt.)
san_flags() {
    echo "-DCMAKE_C_FLAGS_RELWITHDEBINFO=-O$1 -g1 -DNDEBUG"
    echo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O$1 -g1 -DNDEBUG"
}
mapfile -t SAN_FLAGS < <(san_flags 1)
mapfile -t SAN_FLAGS_O2 < <(san_flags 2)
CLANG=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++)
GCC=(-DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++)
san_ctest() {
    ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        OXEL_TEST_SANITIZED=1 ctest --test-dir "$1" --output-on-failure -j "$JOBS" "${@:2}"
}

case "$MODE" in
demo)
    build_tree build -DOXEL_BUILD_PYTHON=ON
    ./tools/demo.sh build/oxel
    ;;
test)
    # The benchmark only has to build: it comes from the same tree as the suite.
    main_opts=(-DOXEL_BUILD_PYTHON=ON)
    [ "$BUILD_BENCH" = 1 ] && main_opts+=(-DOXEL_BUILD_BENCH=ON)
    phase "build (suite, Python$([ "$BUILD_BENCH" = 1 ] && echo ', benchmark'))" \
        build_tree build "${main_opts[@]}"
    phase "suite" ctest --test-dir build --output-on-failure -j "$JOBS"
    if [ "$SANITIZE" = 1 ]; then
        # One clang tree serves the ASan+UBSan suite and, instrumented for coverage too, the
        # fuzz targets.
        fuzz_opts=()
        [ "$FUZZ_SECONDS" != 0 ] && fuzz_opts=(-DOXEL_BUILD_FUZZ=ON)
        phase "build clang ASan+UBSan$([ "$FUZZ_SECONDS" != 0 ] && echo ' + fuzz targets')" \
            build_tree build-asan "${CLANG[@]}" "${SAN_FLAGS_O2[@]}" \
            -DOXEL_SANITIZE=address,undefined "${fuzz_opts[@]}"
        phase "suite under clang ASan+UBSan" san_ctest build-asan
        if [ "$FUZZ_SECONDS" != 0 ]; then
            phase "fuzz ${FUZZ_SECONDS} s per target" ./fuzz/run.sh build-asan "$FUZZ_SECONDS"
        fi
        # GCC too: it is most users' compiler, and it rejects and lays out code differently.
        phase "build GCC ASan+UBSan" build_tree build-asan-gcc "${GCC[@]}" "${SAN_FLAGS[@]}" \
            -DOXEL_SANITIZE=address,undefined
        phase "suite under GCC ASan+UBSan" san_ctest build-asan-gcc -E '^Package'
    elif [ "$FUZZ_SECONDS" != 0 ]; then
        phase "build fuzz targets" build_tree build-fuzz "${CLANG[@]}" "${SAN_FLAGS_O2[@]}" \
            -DOXEL_BUILD_FUZZ=ON -DOXEL_BUILD_TESTS=OFF -DOXEL_BUILD_TOOLS=OFF
        phase "fuzz ${FUZZ_SECONDS} s per target" ./fuzz/run.sh build-fuzz "$FUZZ_SECONDS"
    fi
    if [ "$TSAN" = 1 ]; then
        # Only the thread tests run under TSan: only their program is built.
        TARGETS=(oxel_tests)
        phase "build TSan (test program)" build_tree build-tsan "${CLANG[@]}" "${SAN_FLAGS[@]}" \
            -DOXEL_SANITIZE=thread
        TARGETS=()
        phase "thread tests under TSan" env TSAN_OPTIONS=halt_on_error=1 OXEL_TEST_SANITIZED=1 \
            ctest --test-dir build-tsan --output-on-failure -R 'Thread' -j "$JOBS"
    fi
    report_phases
    ;;
bench)
    build_tree build-bench -DCMAKE_BUILD_TYPE=Release -DOXEL_BUILD_BENCH=ON -DOXEL_BUILD_TESTS=OFF
    ./build-bench/bench/oxel_bench
    ;;
bench-python)
    build_tree build-bench -DCMAKE_BUILD_TYPE=Release -DOXEL_BUILD_TESTS=OFF -DOXEL_BUILD_PYTHON=ON
    PYTHONPATH=build-bench/python /usr/bin/python3 bench/python/bench_numexpr.py
    ;;
esac
