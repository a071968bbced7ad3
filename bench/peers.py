#!/usr/bin/python3
"""Times the peers on the benchmark shapes, for ratios against lyn measured on the same machine.

OpenCV's cv2.dilate/erode (3x3 square and cross, and the 21 x 21 disk of radius 10, every offset
with dx^2 + dy^2 <= 100, on 4096 x 4096) and scipy.ndimage's
grey_dilation (26-connected 3x3x3 on 512 x 512 x 256 uint8). Peers that are not installed are
skipped. Install them with: apt-get install python3-opencv python3-scipy
Usage: bench/peers.py [--threads N] [--repeat R]
"""
import argparse
import time

import numpy as np


def best_of(fn, repeat):
    times = []
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return sorted(times)[len(times) // 2] * 1e3


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--repeat", type=int, default=7)
    args = ap.parse_args()
    rng = np.random.default_rng(7)
    rows = []
    try:
        import cv2

        cv2.setNumThreads(args.threads)
        img = rng.integers(10, 200, size=(4096, 4096))
        square = np.ones((3, 3), np.uint8)
        cross = cv2.getStructuringElement(cv2.MORPH_CROSS, (3, 3))
        for dtype in (np.uint8, np.uint16, np.int16, np.float32, np.float64):
            a = img.astype(dtype)
            out = np.empty_like(a)
            for name, k in (("square", square), ("cross", cross)):
                for passes in (1, 5):
                    ms = best_of(lambda: cv2.dilate(a, k, dst=out, iterations=passes,
                                                    borderType=cv2.BORDER_CONSTANT,
                                                    borderValue=float(np.iinfo(dtype).min if a.dtype.kind in "ui" else -np.finfo(dtype).max)),
                                 args.repeat)
                    rows.append((f"cv2.dilate {name} x{passes}", np.dtype(dtype).name, "4096x4096", ms))
            if dtype in (np.uint8, np.float32):
                yy, xx = np.mgrid[-10:11, -10:11]
                disk = (xx * xx + yy * yy <= 100).astype(np.uint8)
                ms = best_of(lambda: cv2.dilate(a, disk, dst=out, borderType=cv2.BORDER_CONSTANT,
                                                borderValue=float(np.iinfo(dtype).min if a.dtype.kind in "ui" else -np.finfo(dtype).max)),
                             args.repeat)
                rows.append(("cv2.dilate disk r10 (21x21)", np.dtype(dtype).name, "4096x4096", ms))
            ms = best_of(lambda: np.copyto(out, a), args.repeat)
            rows.append(("numpy copy", np.dtype(dtype).name, "4096x4096", ms))
    except ImportError:
        print("# OpenCV (python3-opencv) not installed: skipped")
    try:
        from scipy import ndimage

        vol = rng.integers(10, 200, size=(256, 512, 512)).astype(np.uint8)
        ms = best_of(lambda: ndimage.grey_dilation(vol, size=(3, 3, 3), mode="constant", cval=0), max(1, args.repeat // 3))
        rows.append(("scipy grey_dilation 3x3x3", "uint8", "512x512x256", ms))
        ms = best_of(lambda: (vol.min(), vol.max()), args.repeat)
        rows.append(("numpy min()+max()", "uint8", "512x512x256", ms))
    except ImportError:
        print("# scipy (python3-scipy) not installed: skipped")
    print(f"# threads={args.threads}")
    print(f"{'operation':32} {'type':8} {'shape':12} {'median ms':>10}")
    for op, t, shape, ms in rows:
        print(f"{op:32} {t:8} {shape:12} {ms:10.2f}")


if __name__ == "__main__":
    main()
