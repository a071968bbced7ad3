#!/usr/bin/python3
"""NumPy side of tests/test_tool.sh: inputs, reference results and comparisons."""
import json, sys
import numpy as np

DTYPES = {"u1": np.uint8, "i2": np.int16, "f4": np.float32, "f8": np.float64}
# Odd extents exercise vector tails; the "l" shapes are big enough for several parallel blocks.
SHAPES = {"2d": (29, 37), "3d": (10, 19, 23), "4d": (2, 9, 9, 11), "2dl": (203, 517), "3dl": (24, 61, 101)}


def limits(dt):
    # What never wins a dilation / an erosion: the finite extremes for floats.
    info = np.iinfo(dt) if np.dtype(dt).kind in "iu" else np.finfo(dt)
    return info.min, info.max


def generate():
    rng = np.random.default_rng(2024)
    for code, dt in DTYPES.items():
        for dims, shape in SHAPES.items():
            if np.dtype(dt).kind == "f":
                # No zeros (so no signed-zero ties) and no NaN: bit-identity with NumPy holds.
                a = (rng.standard_normal(shape) * 1000 + 0.5).astype(dt)
                a[a == 0] = 1
            else:
                # Well inside the type's range, so the type's limits are wrong answers; extremes
                # planted at the first and last voxels catch tail bugs.
                lo, hi = limits(dt)
                span = (int(hi) - int(lo)) // 4
                a = rng.integers(int(lo) + span, int(hi) - span, size=shape, endpoint=True).astype(dt)
                a.flat[0] = int(lo) + span - 1
                a.flat[-1] = int(hi) - span + 1
            if np.dtype(dt).kind != "u":
                # Negative bands first and positive bands last along each spatial axis: there a
                # border read as 0 instead of the value that never wins changes the result.
                mag = np.abs(a) + 1
                for ax in range(max(0, a.ndim - 3), a.ndim):
                    lead = (slice(None),) * ax
                    a[lead + (slice(0, 4),)] = -mag[lead + (slice(0, 4),)]
                    a[lead + (slice(-4, None),)] = mag[lead + (slice(-4, None),)]
            np.save(f"{code}_{dims}.npy", a)
            if dims in ("2d", "3d"):
                # Blocks of the type's extremes (infinities for floats) in opposite corners: the
                # border must still be the finite extreme, and saturated values must survive.
                x = a.copy()
                block = (slice(0, 3),) * x.ndim
                x[block] = -np.inf if x.dtype.kind == "f" else limits(dt)[0]
                x[(slice(-3, None),) * x.ndim] = np.inf if x.dtype.kind == "f" else limits(dt)[1]
                np.save(f"{code}_{dims}x.npy", x)
                # Header variants: big-endian data, and a version 2.0 header.
                np.save(f"{code}_{dims}b.npy", a.astype(a.dtype.newbyteorder(">")))
                with open(f"{code}_{dims}v2.npy", "wb") as f:
                    np.lib.format.write_array(f, a, version=(2, 0))
    np.save("big.npy", np.zeros((300, 300, 300), np.float32))
    np.save("c8_2d.npy", np.zeros((4, 5), np.complex64))
    np.save("fortran.npy", np.asfortranarray(np.zeros((4, 5), np.uint8)))
    np.save("one_axis.npy", np.zeros(7, np.uint8))
    np.save("six_axes.npy", np.zeros((1, 1, 1, 1, 2, 2), np.uint8))
    with open("u1_2d.npy", "rb") as f:
        data = f.read()
    with open("truncated.npy", "wb") as f:
        f.write(data[:-5])


def offsets(conn):
    k = 2 if conn in (4, 8) else 3
    grid = np.stack(np.meshgrid(*[[-1, 0, 1]] * k, indexing="ij"), -1).reshape(-1, k)
    reach = {4: 1, 8: 2, 6: 1, 18: 2, 26: 3}[conn]  # city-block distance the neighbourhood covers
    return [tuple(o) for o in grid if np.abs(o).sum() <= reach]


def reference(a, op, conn, radius):
    # `radius` passes of the elementary neighbourhood; outside the image is the value that never wins.
    lo, hi = limits(a.dtype)
    fill, pick = (lo, np.maximum) if op == "dilate" else (hi, np.minimum)
    offs = offsets(conn)
    k = len(offs[0])
    lead = a.ndim - k
    for _ in range(radius):
        p = np.pad(a, [(0, 0)] * lead + [(1, 1)] * k, constant_values=fill)
        views = [p[(Ellipsis,) + tuple(slice(1 + d, 1 + d + n) for d, n in zip(o, a.shape[lead:]))] for o in offs]
        a = pick.reduce(views)
    return a


def same(expected, path):
    # Outputs are in native byte order whatever the input's.
    expected = expected.astype(expected.dtype.newbyteorder("="))
    got = np.load(path)
    if got.dtype != expected.dtype or got.shape != expected.shape:
        return f"{path}: {got.dtype}{got.shape}, expected {expected.dtype}{expected.shape}"
    if got.tobytes() != expected.tobytes():
        diff = np.argwhere(got != expected)
        i = tuple(diff[0]) if len(diff) else "?"
        return f"{path}: {len(diff)} voxels differ, first at {i}: {got[i]} instead of {expected[i]}"
    return None


def fail(errors):
    errors = [e for e in errors if e]
    for e in errors:
        print(e, file=sys.stderr)
    sys.exit(1 if errors else 0)


def extrema(inp, per, *outputs):
    # Expected measurement: one min/max per element of the named axes, plan index fastest.
    a = np.load(inp)
    b = a.reshape((1,) * (5 - a.ndim) + a.shape)  # (axis4, axis3, plan, row, col)
    kept = {{"axis4": 0, "axis3": 1, "plan": 2}[n] for n in per.split(",") if n}
    axes = tuple(i for i in range(5) if i not in kept)
    mn, mx = b.min(axis=axes, keepdims=True), b.max(axis=axes, keepdims=True)
    shape = [mn.shape[2], mn.shape[1], mn.shape[0]]
    errors = []
    for out in outputs:
        r = json.load(open(out))
        if r["shape"] != shape:
            errors.append(f"{out}: shape {r['shape']}, expected {shape}")
        for key, want in (("min", mn), ("max", mx)):
            want = [float(v) for v in want.ravel()]
            if [float(v) for v in r[key]] != want:
                errors.append(f"{out}: {key} {r[key]}, expected {want}")
    fail(errors)


cmd, args = sys.argv[1], sys.argv[2:]
if cmd == "gen":
    generate()
elif cmd == "morph":  # INPUT OP CONN RADIUS OUTPUT...
    expected = reference(np.load(args[0]), args[1], int(args[2]), int(args[3]))
    fail([same(expected, out) for out in args[4:]])
elif cmd == "same":  # EXPECTED OUTPUT...
    fail([same(np.load(args[0]), out) for out in args[1:]])
elif cmd == "extrema":  # INPUT PER OUTPUT...
    extrema(*args)
