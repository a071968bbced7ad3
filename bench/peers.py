#!/usr/bin/python3
"""Times the peers on the benchmark shapes, for ratios against lyn measured on the same machine.

OpenCV's cv2.dilate (3x3 square and cross, one and five passes, the 11 x 11 rectangle, and the
21 x 21 disk of radius 10, every offset with dx^2 + dy^2 <= 100, against lyn's exact and fast disks,
on 4096 x 4096), each beside lyn's call and numpy's copy of the same image, and scipy.ndimage's
grey_dilation (26-connected 3x3x3 on 512 x 512 x 256 uint8).

Opening, closing, gradient and top-hats: OpenCV's morphologyEx with the 3x3 square on 4096 x 4096
uint8 and float32, scipy.ndimage's grey_opening and grey_closing with the 3x3 square on the uint8
image and with the ball of radius 3 (every offset with dx^2 + dy^2 + dz^2 <= 9) on 512 x 512 x 256
uint8. When `import lyn` works (PYTHONPATH=build/python), lyn's call on the same input is timed
right after the peer's (its output preallocated, as the peer's is where it allows it), and the
two results are compared bit for bit.

Peers that are not installed are skipped. Install them with: bash scripts/setup.sh --peers
Usage: bench/peers.py [--threads N] [--repeat R] [--only-composites]
"""
import argparse

import numpy as np

from timing import median_ms


def composites(args, rng, rows):
    """(operation, type, shape, peer ms, lyn ms, same bits) rows; lyn's columns None without lyn."""
    try:
        import lyn
    except ImportError:
        lyn = None
        print("# lyn not importable (set PYTHONPATH=build/python): peers only")

    def compare(name, dtype, extent, peer, ours, repeat):
        result = peer()
        ms = median_ms(peer, repeat)
        lyn_ms = same = None
        if lyn is not None and ours is not None:
            mine = ours()
            lyn_ms = median_ms(ours, repeat)
            same = mine.dtype == result.dtype and np.array_equal(mine, result, equal_nan=mine.dtype.kind == "f")
        rows.append((name, np.dtype(dtype).name, extent, ms, lyn_ms, same))

    def lyn_call(op, image, out, **shape):
        return lambda: getattr(lyn, op)(image, out=out, threads=args.threads, **shape)

    img = rng.integers(10, 200, size=(4096, 4096))
    ops = (("open", "opening"), ("close", "closing"), ("gradient", "gradient"), ("tophat", "tophat"),
           ("blackhat", "blackhat"))
    try:
        import cv2

        cv2.setNumThreads(args.threads)
        square = np.ones((3, 3), np.uint8)
        flags = {"open": cv2.MORPH_OPEN, "close": cv2.MORPH_CLOSE, "gradient": cv2.MORPH_GRADIENT,
                 "tophat": cv2.MORPH_TOPHAT, "blackhat": cv2.MORPH_BLACKHAT}
        for dtype in (np.uint8, np.float32):
            a = img.astype(dtype)
            out, mine = np.empty_like(a), lyn.empty_like(a) if lyn else None
            for op, fn in ops:
                # The default border is the neutral value of each stage, as in lyn.
                compare(f"cv2.morphologyEx {op} 3x3 square", dtype, "4096x4096",
                        lambda: cv2.morphologyEx(a, flags[op], square, dst=out),
                        lyn and lyn_call(fn, a, mine, shape="square"), args.repeat)
    except ImportError:
        print("# OpenCV (python3-opencv) not installed: skipped")
    try:
        from scipy import ndimage

        a = img.astype(np.uint8)
        mine = lyn.empty_like(a) if lyn else None
        # scipy's default 'reflect' border repeats in-image values, which a stage of a centrally
        # symmetric element cannot tell from lyn's neutral border: the results are the same.
        for op, fn in ops[:2]:
            compare(f"scipy grey_{fn} 3x3 square", np.uint8, "4096x4096",
                    lambda: getattr(ndimage, "grey_" + fn)(a, size=(3, 3)),
                    lyn and lyn_call(fn, a, mine, shape="square"), max(1, args.repeat // 3))
        vol = rng.integers(10, 200, size=(256, 512, 512)).astype(np.uint8)
        mine = lyn.empty_like(vol) if lyn else None
        zz, yy, xx = np.mgrid[-3:4, -3:4, -3:4]
        ball = zz * zz + yy * yy + xx * xx <= 9
        for op, fn in ops[:2]:
            compare(f"scipy grey_{fn} ball r3 (lyn exact)", np.uint8, "512x512x256",
                    lambda: getattr(ndimage, "grey_" + fn)(vol, footprint=ball),
                    lyn and lyn_call(fn, vol, mine, shape="ball", radius=3, exact=True), 1)
        if lyn is not None:
            for op, fn in ops[:2]:
                ms = median_ms(lyn_call(fn, vol, mine, shape="ball", radius=3), args.repeat)
                rows.append((f"lyn.{fn} ball r3 fast (no peer)", "uint8", "512x512x256", None, ms, None))
    except ImportError:
        print("# scipy (python3-scipy) not installed: skipped")


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--threads", type=int, default=2)
    ap.add_argument("--repeat", type=int, default=7)
    ap.add_argument("--only-composites", action="store_true", help="only opening, closing, gradient, top-hats")
    args = ap.parse_args()
    rng = np.random.default_rng(7)
    rows = []
    if args.only_composites:
        composites(args, rng, rows)
        print_rows(args, [r + (None,) for r in rows])
        return
    try:
        import lyn
    except ImportError:
        lyn = None
    try:
        import cv2

        cv2.setNumThreads(args.threads)
        img = rng.integers(10, 200, size=(4096, 4096))
        square = np.ones((3, 3), np.uint8)
        cross = cv2.getStructuringElement(cv2.MORPH_CROSS, (3, 3))
        yy, xx = np.mgrid[-10:11, -10:11]
        disk = (xx * xx + yy * yy <= 100).astype(np.uint8)
        for dtype in (np.uint8, np.uint16, np.int16, np.float32, np.float64):
            a = img.astype(dtype)
            out = np.empty_like(a)
            mine = lyn.empty_like(a) if lyn is not None else None
            low = float(np.iinfo(dtype).min if a.dtype.kind in "ui" else -np.finfo(dtype).max)
            copy_ms = median_ms(lambda: np.copyto(out, a), args.repeat)

            def case(name, kernel, passes, shape, radius, exact=None, same=True, connectivity=None):
                ms = median_ms(lambda: cv2.dilate(a, kernel, dst=out, iterations=passes, borderType=cv2.BORDER_CONSTANT,
                                                borderValue=low), args.repeat)
                lyn_ms = bits = None
                if lyn is not None:
                    def ours():
                        return lyn.dilate(a, shape, radius=radius, exact=exact, connectivity=connectivity, out=mine,
                                          threads=args.threads)
                    ours()
                    lyn_ms = median_ms(ours, args.repeat)
                    # A fast disk is another shape than OpenCV's: only its time compares.
                    bits = bool(np.array_equal(mine, out)) if same else "other shape"
                rows.append((name, np.dtype(dtype).name, "4096x4096", ms, lyn_ms, bits, copy_ms))

            for passes in (1, 5):
                case(f"cv2.dilate square x{passes}", square, passes, "square", passes)
                case(f"cv2.dilate cross x{passes}", cross, passes, "square", passes, connectivity=4)
            # OpenCV runs five iterations of the 3 x 3 rectangle as this one rectangle.
            case("cv2.dilate 11x11 rectangle", np.ones((11, 11), np.uint8), 1, "square", 5)
            if dtype in (np.uint8, np.float32):
                case("cv2.dilate disk r10 (21x21) / exact", disk, 1, "disk", 10, exact=True)
                case("cv2.dilate disk r10 (21x21) / fast", disk, 1, "disk", 10, same=False)
            rows.append(("numpy copy", np.dtype(dtype).name, "4096x4096", copy_ms, None, None, copy_ms))
    except ImportError:
        print("# OpenCV (python3-opencv) not installed: skipped")
    try:
        from scipy import ndimage

        vol = rng.integers(10, 200, size=(256, 512, 512)).astype(np.uint8)
        ms = median_ms(lambda: ndimage.grey_dilation(vol, size=(3, 3, 3), mode="constant", cval=0), max(1, args.repeat // 3))
        rows.append(("scipy grey_dilation 3x3x3", "uint8", "512x512x256", ms))
        ms = median_ms(lambda: (vol.min(), vol.max()), args.repeat)
        rows.append(("numpy min()+max()", "uint8", "512x512x256", ms))
    except ImportError:
        print("# scipy (python3-scipy) not installed: skipped")
    rows = [r + (None, None, None) if len(r) == 4 else r for r in rows]
    composite_rows = []
    composites(args, rng, composite_rows)
    rows += [r + (None,) for r in composite_rows]
    print_rows(args, rows)


def print_rows(args, rows):
    print(f"# threads={args.threads}; median ms; lyn timed right after the peer on the same input; "
          "copy: numpy's copy of the same image")
    print(f"{'operation':40} {'type':8} {'shape':12} {'peer ms':>10} {'lyn ms':>10} {'peer/lyn':>9} {'lyn/copy':>9}"
          "  same bits")
    for op, t, shape, ms, lyn_ms, same, copy_ms in rows:
        peer = f"{ms:10.2f}" if ms is not None else f"{'':10}"
        mine = f"{lyn_ms:10.2f}" if lyn_ms is not None else f"{'':10}"
        ratio = f"{ms / lyn_ms:9.2f}" if ms is not None and lyn_ms is not None else f"{'':9}"
        copies = f"{lyn_ms / copy_ms:9.2f}" if lyn_ms is not None and copy_ms else f"{'':9}"
        print(f"{op:40} {t:8} {shape:12} {peer} {mine} {ratio} {copies}  {'' if same is None else same}")


if __name__ == "__main__":
    main()
