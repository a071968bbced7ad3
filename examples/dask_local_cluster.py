#!/usr/bin/python3
"""Dilates a chunked volume larger than one worker's memory on a local dask cluster.

The volume is generated chunk by chunk on the workers (it never exists whole in this process),
dilated with lyn.dask, measured, and the timings printed. With --check, the volume is also
gathered here, dilated in memory, and compared bit for bit.

Usage: PYTHONPATH=build/python examples/dask_local_cluster.py [--size 768] [--chunk 128]
           [--workers 2] [--memory-limit 384MiB] [--shape cube] [--radius 1] [--check]
"""
import argparse
import time

import dask.array as da
import distributed
import numpy as np

import lyn
import lyn.dask


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--size", type=int, default=768, help="edge of the cubic uint8 volume (768: 432 MiB)")
    ap.add_argument("--chunk", type=int, default=128)
    ap.add_argument("--workers", type=int, default=2)
    ap.add_argument("--memory-limit", default="384MiB", help="per worker")
    ap.add_argument("--shape", default="cube")
    ap.add_argument("--radius", type=int, default=1)
    ap.add_argument("--check", action="store_true", help="compare with the in-memory call")
    args = ap.parse_args()

    cluster = distributed.LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                                       memory_limit=args.memory_limit, dashboard_address=":0", silence_logs=40)
    client = distributed.Client(cluster)
    try:
        n = args.size
        # Each chunk is made on a worker, from its own seed: nothing is sent from here.
        volume = da.random.RandomState(7).randint(0, 256, size=(n, n, n), chunks=args.chunk, dtype=np.uint8)
        print(f"volume: {n}^3 uint8 = {volume.nbytes / 2**20:.0f} MiB in {volume.npartitions} chunks of "
              f"{args.chunk}^3, {args.workers} workers of {args.memory_limit}")
        print(f"overlap per axis for shape={args.shape!r} radius={args.radius}: "
              f"{lyn.dask.depth(volume, args.shape, radius=args.radius)}")

        # Nothing is persisted: chunks are generated, dilated and measured as they stream through
        # the workers, so no worker ever holds more than a few chunks.
        t0 = time.perf_counter()
        lo0, hi0 = lyn.dask.extrema(volume)
        t1 = time.perf_counter()
        dilated = lyn.dask.dilate(volume, args.shape, radius=args.radius, threads=1)
        lo, hi = lyn.dask.extrema(dilated)
        t2 = time.perf_counter()
        print(f"generate + extrema:           {1e3 * (t1 - t0):9.1f} ms   (min {lo0}, max {hi0})")
        print(f"generate + dilate + extrema:  {1e3 * (t2 - t1):9.1f} ms   (min {lo}, max {hi})")
        print(f"so the dilation took about    {1e3 * (t2 - t1 - (t1 - t0)):9.1f} ms")

        if args.check:
            local = volume.compute()
            t3 = time.perf_counter()
            expected = lyn.dilate(local, args.shape, radius=args.radius)
            t4 = time.perf_counter()
            same = np.array_equal(dilated.compute(), expected)
            print(f"in-memory lyn.dilate:         {1e3 * (t4 - t3):9.1f} ms   same bits: {same}")
            if not same:
                raise SystemExit("lyn.dask and lyn differ")
    finally:
        client.close()
        cluster.close()


if __name__ == "__main__":
    main()
