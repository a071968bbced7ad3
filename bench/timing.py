"""The benchmark scripts' one timer."""
import time


def median_ms(fn, repeat):
    """Median wall time of `repeat` calls of fn(), in milliseconds."""
    times = []
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return sorted(times)[len(times) // 2] * 1e3
