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

# configure DIR [cmake options...] then build it.
build_tree() {
    local dir=$1
    shift
    cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOXEL_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$JOBS"
}

case "$MODE" in
demo)
    build_tree build -DOXEL_BUILD_PYTHON=ON
    ./tools/demo.sh build/oxel
    ;;
test)
    build_tree build -DOXEL_BUILD_PYTHON=ON
    ctest --test-dir build --output-on-failure -j "$JOBS"
    if [ "$SANITIZE" = 1 ]; then
        build_tree build-asan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
            -DOXEL_SANITIZE=address,undefined
        ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
            ctest --test-dir build-asan --output-on-failure -j "$JOBS"
        # GCC too: it is most users' compiler, and it rejects and lays out code differently.
        build_tree build-asan-gcc -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
            -DOXEL_SANITIZE=address,undefined
        ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
            ctest --test-dir build-asan-gcc --output-on-failure -j "$JOBS" -E '^Package'
    fi
    if [ "$TSAN" = 1 ]; then
        build_tree build-tsan -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
            -DOXEL_SANITIZE=thread
        TSAN_OPTIONS=halt_on_error=1 ctest --test-dir build-tsan --output-on-failure \
            -R 'Thread' -j "$JOBS"
    fi
    if [ "$FUZZ_SECONDS" != 0 ]; then
        build_tree build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
            -DOXEL_BUILD_FUZZ=ON -DOXEL_BUILD_TESTS=OFF -DOXEL_BUILD_TOOLS=OFF
        ./fuzz/run.sh build-fuzz "$FUZZ_SECONDS"
    fi
    if [ "$BUILD_BENCH" = 1 ]; then
        build_tree build-bench -DCMAKE_BUILD_TYPE=Release -DOXEL_BUILD_BENCH=ON \
            -DOXEL_BUILD_TESTS=OFF
    fi
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
