#!/usr/bin/python3
"""Where the box pays: square and cube dilations by radius, the box against the plain passes.

Times lyn.dilate(..., threads=N, out=...) with LYN_GENERIC_BOX=1 and =0 (the runners' own passes);
below the plug-in's thresholds both settings run the passes, so --all-radii makes the comparison
only where the box serves. Default images: 4096 x 4096 and 512 x 512 x 256 uint8, 256^3 float32;
--big: one 1024^3 uint8 volume (1 GiB, out of most caches).
Usage: PYTHONPATH=build/python bench/box_crossover.py [--big] [--radii 1,2,3,4,5] [--threads 2] [--repeat 7]
"""
import argparse
import os

import numpy as np

import lyn

from timing import median_ms


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--big", action="store_true")
    ap.add_argument("--radii", default="1,2,3,4,5,8")
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--repeat", type=int, default=7)
    args = ap.parse_args()
    rng = np.random.default_rng(1)
    cases = []
    if args.big:
        vol = lyn.empty((1024, 1024, 1024), np.uint8)
        vol[...] = rng.integers(0, 200, (1024, 1024), dtype=np.uint8)[None, :, :]
        cases.append(("cube", vol))
    else:
        for dtype, vshape in ((np.uint8, (256, 512, 512)), (np.float32, (256, 256, 256))):
            cases.append(("square", rng.integers(0, 200, (4096, 4096)).astype(dtype)))
            cases.append(("cube", rng.integers(0, 200, vshape).astype(dtype)))
    print(f"# threads={args.threads}; median of {args.repeat}; ms")
    print(f"{'shape':7} {'type':8} {'extents':14} {'radius':>6} {'box=1':>9} {'box=0':>9}")
    for shape, image in cases:
        out = lyn.empty_like(image)
        for radius in (int(r) for r in args.radii.split(",")):
            row = []
            for box in ("1", "0"):
                os.environ["LYN_GENERIC_BOX"] = box
                row.append(median_ms(lambda: lyn.dilate(image, shape, radius=radius, threads=args.threads, out=out),
                                     args.repeat))
            extents = "x".join(str(n) for n in reversed(image.shape))
            print(f"{shape:7} {image.dtype.name:8} {extents:14} {radius:6} {row[0]:9.2f} {row[1]:9.2f}", flush=True)
    os.environ.pop("LYN_GENERIC_BOX", None)


if __name__ == "__main__":
    main()
