"""The timing the Python benchmarks share: the best time of several runs (wall clock by default)."""
import time


def best_seconds(fn, repeat, clock=time.perf_counter):
    best = float("inf")
    for _ in range(repeat):
        start = clock()
        fn()
        best = min(best, clock() - start)
    return best
