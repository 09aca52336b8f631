"""The timing the Python benchmarks share: the best wall time of several runs."""
import time


def best_seconds(fn, repeat):
    best = float("inf")
    for _ in range(repeat):
        start = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - start)
    return best
