#!/usr/bin/python3
"""Costs of lyn's Python package, for docs/performance.md.

1. lyn.dilate(cube, 26, radius 1) on the 512 x 512 x 256 uint8 volume with `out=` preallocated,
   against the same call from C++ (lyn_bench, output preallocated), alternated in rounds so that
   both see the same load.
2. lyn.dask.dilate of that volume in 64^3 chunks on a LocalCluster of two worker processes,
   as it is and merged into larger blocks (`chunks=`), against the in-memory call, against dask's
   own map_overlap calling lyn.dilate (what lyn.dask built before) and against map_overlap with
   scipy.ndimage.grey_dilation on the same chunks; "tasks" counts the graph's tasks beyond the input's.

Usage: PYTHONPATH=build/python bench/python_bench.py [--bench build/bin/lyn_bench] [--rounds 3]
Every figure is a median; "others" is the CPU that other processes used meanwhile (0 to 2 cores).
"""
import argparse
import functools
import json
import os
import subprocess
import tempfile
import time

import numpy as np

import lyn

from timing import median_ms

SHAPE = (256, 512, 512)


def busy_ticks():
    with open("/proc/stat") as f:
        v = [int(x) for x in f.readline().split()[1:8]]
    return v[0] + v[1] + v[2] + v[5] + v[6]


def self_ticks():
    total = 0
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            if int(fields[1]) == os.getpgrp() or int(pid) == os.getpid():
                total += int(fields[11]) + int(fields[12])
        except (OSError, IndexError, ValueError):
            pass
    t = os.times()  # children already reaped (lyn_bench) no longer show in /proc
    return total + round((t.children_user + t.children_system) * os.sysconf("SC_CLK_TCK"))


class Others:
    """CPU used by other processes (in cores) while the block runs."""

    def __enter__(self):
        self.t, self.busy, self.own = time.monotonic(), busy_ticks(), self_ticks()
        return self

    def __exit__(self, *exc):
        hz = os.sysconf("SC_CLK_TCK")
        dt = time.monotonic() - self.t
        self.cores = max(0.0, (busy_ticks() - self.busy - (self_ticks() - self.own)) / hz / dt)


def cpp_ms(bench, threads):
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run([bench, f"--benchmark_filter=^morph3d/uint8/dilate-26-x1/plugin/threads:{threads}/real_time$",
                        "--benchmark_repetitions=7", "--benchmark_report_aggregates_only=true",
                        f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
                       check=True, stdout=subprocess.DEVNULL)
        data = json.load(open(out.name))
    for b in data["benchmarks"]:
        if b.get("aggregate_name") == "median":
            return b["real_time"]
    raise RuntimeError("no median in lyn_bench output")


def python_vs_cpp(args, volume):
    # lyn.empty arrays are allocated as the C++ benchmark's images are (cache-line aligned, on huge
    # pages), so both take the same vector paths and TLB reach; NumPy's own arrays (16-byte
    # aligned, 4 KiB pages) are timed beside them to show what the memory alone costs.
    data = np.random.default_rng(7).integers(0, 256, size=SHAPE, dtype=np.uint8)
    arrays = {"lyn.empty": (lyn.empty_like(volume), lyn.empty_like(volume)),
              "numpy": (np.empty_like(volume), np.empty_like(volume))}
    for image, _ in arrays.values():
        image[...] = data
    print(f"\n## Python with out= vs C++ (cube 26, radius 1, {SHAPE} uint8)")
    print("| threads | round | C++ ms | Python ms, lyn.empty arrays | / C++ | Python ms, numpy arrays | / C++ | others (cores) |")
    print("|---|---|---|---|---|---|---|---|")
    for threads in (1, 2):
        for image, out in arrays.values():
            lyn.dilate(image, "cube", out=out, threads=threads)  # warm-up: plug-in loaded, pages touched
        for r in range(args.rounds):
            with Others() as o:
                c = cpp_ms(args.bench, threads)
                p = {}
                for name, (image, out) in arrays.items():
                    # One untimed call first: the C++ process that just ran left the caches cold.
                    call = lambda: lyn.dilate(image, "cube", out=out, threads=threads)  # noqa: E731
                    call()
                    p[name] = median_ms(call, 25)
            a, b = p["lyn.empty"], p["numpy"]
            print(f"| {threads} | {r + 1} | {c:.2f} | {a:.2f} | {a / c:.3f} | {b:.2f} | {b / c:.3f} | {o.cores:.2f} |")


def call_overhead():
    """The fixed cost of a Python call (argument checks, wrapping, the worker thread), on a volume too
    small for the computation to matter."""
    tiny = np.zeros((4, 32, 32), np.uint8)
    out = lyn.empty_like(tiny)
    print("\n## Fixed cost of one Python call (cube 26 on 4 x 32 x 32 uint8, out=)")
    for threads in (1, 2):
        with Others() as o:
            us = median_ms(lambda: lyn.dilate(tiny, "cube", out=out, threads=threads), 201) * 1e3
        print(f"threads={threads}: {us:.0f} us per call (others {o.cores:.2f} cores)")


def _tasks_held(dask_scheduler):
    return len(dask_scheduler.tasks)


def dask_cluster(args, volume):
    import dask.array as da
    import distributed
    import scipy.ndimage as ndi

    import lyn.dask

    print(f"\n## lyn.dask on a 2-worker LocalCluster, 64^3 chunks (cube 26, radius 1, {SHAPE} uint8)")
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0",
                                       silence_logs=50)
    client = distributed.Client(cluster)
    try:
        x = da.from_array(volume, chunks=64).persist()
        distributed.wait(x)
        expected = lyn.dilate(volume, "cube")

        held = len(dict(x.__dask_graph__()))  # the persisted input's keys

        def on_cluster(lazy):
            def run():
                t0 = time.perf_counter()
                y = lazy.persist()
                distributed.wait(y)
                elapsed = time.perf_counter() - t0
                client.cancel(y)
                del y
                # The next run must compute again, not find the same keys still held by the workers.
                deadline = time.monotonic() + 30
                while client.run_on_scheduler(_tasks_held) > held and time.monotonic() < deadline:
                    time.sleep(0.01)
                return elapsed
            return run

        def in_memory():
            t0 = time.perf_counter()
            lyn.dilate(volume, "cube")
            return time.perf_counter() - t0

        def tasks(lazy):
            return len(dict(lazy.__dask_graph__())) - len(dict(x.__dask_graph__()))

        block = functools.partial(lyn.dilate, shape="cube")
        lazies = {
            "lyn.dask.dilate, lyn threads=1 per task": lyn.dask.dilate(x, "cube", threads=1),
            "lyn.dask.dilate, lyn default threads per task": lyn.dask.dilate(x, "cube"),
            "lyn.dask.dilate, chunks=(128, 256, 256)": lyn.dask.dilate(x, "cube", chunks=(128, 256, 256)),
            "lyn.dask.dilate, chunks='auto' (one block here)": lyn.dask.dilate(x, "cube", chunks="auto"),
            # What lyn.dask built before: dask's own overlap, about 24 tasks per chunk.
            "map_overlap + lyn.dilate": x.map_overlap(block, depth=1, boundary="none", dtype=x.dtype),
            "map_overlap + scipy.ndimage.grey_dilation(size=3)": x.map_overlap(
                ndi.grey_dilation, depth=1, boundary="none", size=(3, 3, 3)),
        }
        # The scipy variant gives the same bits ('reflect' at the edges repeats in-image values).
        for name, lazy in lazies.items():
            assert np.array_equal(lazy.compute(), expected), name
        cases = {"in-memory lyn.dilate (this process, 2 threads)": (in_memory, 0)}
        cases.update({name: (on_cluster(lazy), tasks(lazy)) for name, lazy in lazies.items()})
        print("| case | tasks | round | ms | others (cores) |")
        print("|---|---|---|---|---|")
        for r in range(args.rounds):
            for name, (fn, count) in cases.items():
                repeat = 3 if fn() < 5 else 1  # warm-up
                with Others() as o:
                    ms = sorted(fn() for _ in range(repeat))[repeat // 2] * 1e3
                print(f"| {name} | {count} | {r + 1} | {ms:.1f} | {o.cores:.2f} |", flush=True)
    finally:
        client.close()
        cluster.close()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bench", default=os.path.join(os.path.dirname(__file__), "..", "build", "bin", "lyn_bench"))
    ap.add_argument("--rounds", type=int, default=3)
    ap.add_argument("--skip-cpp", action="store_true")
    ap.add_argument("--skip-dask", action="store_true")
    args = ap.parse_args()
    print(f"load before: {os.getloadavg()}")
    volume = np.random.default_rng(7).integers(0, 256, size=SHAPE, dtype=np.uint8)
    call_overhead()
    if not args.skip_cpp:
        python_vs_cpp(args, volume)
    if not args.skip_dask:
        dask_cluster(args, volume)
    print(f"\nload after: {os.getloadavg()}")


if __name__ == "__main__":
    main()
