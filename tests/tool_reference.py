#!/usr/bin/python3
"""NumPy side of tests/test_tool.sh: inputs, reference results and comparisons."""
import json, math, sys
from fractions import Fraction
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
    # Whole-range integers (differences saturate) and floats holding NaN, both zeros and
    # infinities, for the opening, closing, gradient and top-hats.
    for code, dt in {"i1": np.int8, "u2": np.uint16, "i4": np.int32, "f4": np.float32, "f8": np.float64}.items():
        for dims, shape in (("2d", (23, 31)), ("3d", (7, 13, 17))):
            if np.dtype(dt).kind == "f":
                a = (rng.standard_normal(shape) * 100).astype(dt)
                specials = np.array([np.nan, 0.0, -0.0, np.inf, -np.inf], dt)
                pick = rng.integers(0, 12, size=shape)
                a = np.where(pick < 5, specials[np.minimum(pick, 4)], a)
            else:
                lo, hi = limits(dt)
                a = rng.integers(int(lo), int(hi), size=shape, endpoint=True).astype(dt)
                a[rng.integers(0, 4, size=shape) == 0] = lo
                a[rng.integers(0, 4, size=shape) == 0] = hi
            np.save(f"full_{code}_{dims}.npy", a)
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
    if conn in (6, 18, 26) and a.ndim == 2:
        return reference(a[None], op, conn, radius)[0]  # a 2D image is a volume of one plan
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


def difference(a, b):
    # Integers saturate at the type's range; floats follow IEEE.
    if a.dtype.kind == "f":
        with np.errstate(invalid="ignore", over="ignore"):
            return a - b
    lo, hi = limits(a.dtype)
    return np.clip(a.astype(np.int64) - b.astype(np.int64), int(lo), int(hi)).astype(a.dtype)


def composite(a, op, dilate, erode):
    # The definitions, given the dilation and erosion by the element (the mirror is the element itself).
    if op == "open":
        return dilate(erode(a))
    if op == "close":
        return erode(dilate(a))
    if op == "gradient":
        return difference(dilate(a), erode(a))
    if op == "tophat":
        return difference(a, dilate(erode(a)))
    return difference(erode(dilate(a)), a)


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


# --- Structuring elements, written from their definitions --------------------------------------
# Offsets are (dx, dy[, dz]) = (column, row[, plan]); an output voxel at p folds the input at
# p + offset in list order, the accumulator first: on a tie or a NaN the later operand wins.


def rnd(x):
    # Half away from zero, on the exact value of the double.
    f = Fraction(x)
    n = math.floor(abs(f) + Fraction(1, 2))
    return n if f >= 0 else -n


def direction(angles):
    # 2D: angle from the column axis, counter-clockwise as displayed (rows grow downwards).
    # 3D: (azimuth, elevation), elevation towards larger plans. math.cos/sin, a * pi / 180 as written.
    if len(angles) == 1:
        t = angles[0] * math.pi / 180
        return (math.cos(t), -math.sin(t))
    a, e = angles[0] * math.pi / 180, angles[1] * math.pi / 180
    return (math.cos(e) * math.cos(a), -math.cos(e) * math.sin(a), math.sin(e))


def major(u):
    m = 0
    for j in range(1, len(u)):
        if abs(u[j]) > abs(u[m]):
            m = j
    return m


def line_offsets(angles, length):
    u = direction(angles)
    m = major(u)
    return [tuple(rnd(k * uj / abs(u[m])) for uj in u) for k in (i - (length - 1) // 2 for i in range(length))]


def disk_offsets(r):
    return [(dx, dy) for dy in range(-r, r + 1) for dx in range(-r, r + 1) if dx * dx + dy * dy <= r * r]


def ball_offsets(r):
    rng = range(-r, r + 1)
    return [(dx, dy, dz) for dz in rng for dy in rng for dx in rng if dx * dx + dy * dy + dz * dz <= r * r]


def disk3d_offsets(angles, r):
    u = direction(angles)
    m = major(u)
    a, b = [j for j in range(3) if j != m]
    out = []
    for pa in range(-r, r + 1):
        for pb in range(-r, r + 1):
            p = [0, 0, 0]
            p[a], p[b] = pa, pb
            p[m] = rnd(-(u[a] * pa + u[b] * pb) / u[m])
            t = u[0] * p[0] + u[1] * p[1] + u[2] * p[2]
            if (p[0] * p[0] + p[1] * p[1] + p[2] * p[2]) - t * t <= r * r + 1e-9:
                out.append(tuple(p))
    return sorted(out, key=lambda o: (o[2], o[1], o[0]))


def step(op):
    if op == "dilate":
        return lambda acc, nxt: np.where(acc > nxt, acc, nxt)
    return lambda acc, nxt: np.where(acc < nxt, acc, nxt)


def shifted(a, op, k):
    # shifted((dx, dy[, dz])) = the input at p + offset over the last k axes, the never-winning value outside.
    lo, hi = limits(a.dtype)
    fill = a.dtype.type(lo if op == "dilate" else hi)
    lead = a.ndim - k

    def at(o):
        out = np.full_like(a, fill)
        src, dst = [slice(None)] * lead, [slice(None)] * lead
        for d, n in zip(reversed(o), a.shape[lead:]):  # offsets are (x, y, z); axes are (..., z, y, x)
            src.append(slice(max(d, 0), n + min(d, 0)))
            dst.append(slice(max(-d, 0), n + min(-d, 0)))
        out[tuple(dst)] = a[tuple(src)]
        return out

    return at


def fold(a, op, offsets):
    at, f = shifted(a, op, len(offsets[0])), step(op)
    acc = at(offsets[0])
    for o in offsets[1:]:
        acc = f(acc, at(o))
    return acc


def elementary(a, op, name):
    # One pass of a fixed operator, in its fold order (a tree for the square and the 26-neighbourhood).
    f = step(op)
    if name == "cross4":
        return fold(a, op, [(0, -1), (-1, 0), (0, 0), (1, 0), (0, 1)])
    if name == "square8":
        at = shifted(a, op, 2)
        h = [f(f(at((-1, dy)), at((0, dy))), at((1, dy))) for dy in (-1, 0, 1)]
        return f(f(h[0], h[1]), h[2])
    if name == "six":
        return fold(a, op, [(0, 0, -1), (0, -1, 0), (-1, 0, 0), (0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)])
    if name == "eighteen":
        return fold(a, op, [(x, y, z) for z in (-1, 0, 1) for y in (-1, 0, 1) for x in (-1, 0, 1)
                            if abs(x) + abs(y) + abs(z) <= 2])
    at = shifted(a, op, 3)
    rows = []
    for dy in (-1, 0, 1):
        acc = at((-1, dy, -1))
        for dz in (-1, 0, 1):
            for dx in (-1, 0, 1):
                if (dz, dx) != (-1, -1):
                    acc = f(acc, at((dx, dy, dz)))
        rows.append(acc)
    return f(f(rows[0], rows[1]), rows[2])


def shape_reference(a, op, shape, p):
    # p: the tool's options as a dict (radius, exact, length, angle, angles).
    if a.ndim == 2 and shape in ("ball", "disk3d", "line3d", "cube"):
        return shape_reference(a[None], op, shape, p)[0]  # a 2D image is a volume of one plan
    r = p.get("radius", 1)
    if shape in ("disk", "ball") and not p.get("exact"):
        if shape == "disk":  # floor(r/2) square passes, then the rest cross passes
            passes = [("square8", r // 2), ("cross4", r - r // 2)]
        else:  # trunc(0.6 r) six, trunc(0.3 r) eighteen, the rest 26
            six, eighteen = int(r * 0.6), int(r * 0.3)
            passes = [("six", six), ("eighteen", eighteen), ("twentysix", r - six - eighteen)]
        for name, n in passes:
            for _ in range(n):
                a = elementary(a, op, name)
        return a
    if shape == "disk":
        offs = disk_offsets(r)
    elif shape == "ball":
        offs = ball_offsets(r)
    elif shape == "line":
        offs = line_offsets([p.get("angle", 0.0)], p["length"])
    elif shape == "line3d":
        offs = line_offsets(p["angles"], p["length"])
    else:
        offs = disk3d_offsets(p["angles"], r)
    return fold(a, op, offs)


def mirrored_reference(a, op, shape, p):
    # The mirror of a centrally symmetric shape is the shape itself; a line that is not (even
    # length) is mirrored by its offsets negated, folded in the original order.
    if shape in ("line", "line3d"):
        offs = line_offsets([p.get("angle", 0.0)] if shape == "line" else p["angles"], p["length"])
        negated = [tuple(-c for c in o) for o in offs]
        if set(negated) != set(offs):
            return fold(a[None], op, negated)[0] if a.ndim == 2 and shape == "line3d" else fold(a, op, negated)
    return shape_reference(a, op, shape, p)


def shape_composites(inp, shape, opts):
    a, p = np.load(inp), json.loads(opts)
    d, e = shape_reference(a, "dilate", shape, p), shape_reference(a, "erode", shape, p)
    opened, closed = mirrored_reference(e, "dilate", shape, p), mirrored_reference(d, "erode", shape, p)
    expected = {"open": opened, "close": closed, "gradient": difference(d, e), "tophat": difference(a, opened),
                "blackhat": difference(closed, a)}
    fail([same(expected[op], f"c_{op}{g}.npy") for op in expected for g in ("", "_g")])


def shapes_check(manifest):
    # Lines of "INPUT OP SHAPE OUTPUT JSON-OPTIONS"; every output must equal its reference bit for bit.
    errors = []
    for line in open(manifest):
        inp, op, shape, out, opts = line.rstrip("\n").split(" ", 4)
        err = same(shape_reference(np.load(inp), op, shape, json.loads(opts)), out)
        if err:
            errors.append(f"{op} --shape {shape} {opts} on {inp}: {err}")
    fail(errors)


def shape_cases():
    # One line per case: SHAPE INPUT OP JSON-OPTIONS TOOL-OPTIONS... Types, operations and image kinds rotate through
    # the cases so that every shape meets each of them without running the full product.
    types = ["u1", "f4", "i1", "f8", "u2", "i4"]
    angles = [0, 30, 45, 90, 135, -60, 370, -150, 210, 26.565, 63.43494882292201, 1e-7, 22.5, -0.0]
    pairs = [(30, 45), (45, 30), (0, 90), (0, 0), (90, 0), (135, -60), (370, 30), (-150, 210), (26.565, 63.4),
             (12.5, -77), (90, 90), (1e-7, 45)]
    cases = []
    for r in range(13):
        for exact in (False, True):
            cases += [("disk", "2d", {"radius": r, "exact": exact}), ("ball", "3d", {"radius": r, "exact": exact})]
    cases += [("disk", "3d", {"radius": 3}), ("disk", "1p", {"radius": 4, "exact": True}),
              ("ball", "2d", {"radius": 4}), ("ball", "1p", {"radius": 3, "exact": True})]
    for i, a in enumerate(angles):
        for length in (1, 2, 5, 8, 13):
            cases.append(("line", "3d" if (i + length) % 5 == 0 else "2d", {"length": length, "angle": a}))
    cases.append(("line", "2d", {"length": 6}))
    for i, pair in enumerate(pairs):
        for length in (1, 4, 9):
            cases.append(("line3d", "2d" if (i + length) % 7 == 0 else "3d", {"length": length, "angles": list(pair)}))
        for r in (0, 1, 3, 6):
            cases.append(("disk3d", "1p" if (i + r) % 7 == 0 else "3d", {"radius": r, "angles": list(pair)}))
    for i, (shape, dims, opts) in enumerate(cases):
        op = "dilate" if (i // 2) % 2 == 0 else "erode"
        value = lambda v: ",".join(map(repr, v)) if isinstance(v, list) else repr(v)
        cli = [f"--{k}={value(v)}" for k, v in opts.items() if k != "exact"]
        cli += ["--exact"] if opts.get("exact") else []
        print(shape, f"se_{types[(i + i // 6) % len(types)]}_{dims}.npy", op, json.dumps(opts, separators=(",", ":")),
              *cli)


def generate_shape_inputs():
    # Small-range values make ties frequent; floats carry NaN and both signed zeros.
    rng = np.random.default_rng(7)
    for code in ("u1", "i1", "u2", "i4", "f4", "f8"):
        for dims, shape in (("2d", (23, 31)), ("3d", (9, 13, 17)), ("1p", (1, 12, 14))):
            dt = np.dtype(code)
            if dt.kind == "f":
                a = rng.integers(-3, 4, size=shape).astype(dt)
                zero = a == 0
                a[zero & (rng.random(shape) < 0.5)] = -0.0
                a[rng.random(shape) < 0.04] = np.nan
            else:
                lo, hi = limits(dt)
                a = rng.integers(int(lo) // 2, int(hi) // 2, size=shape, endpoint=True).astype(dt)
            np.save(f"se_{code}_{dims}.npy", a)


cmd, args = sys.argv[1], sys.argv[2:]
if cmd == "gen":
    generate()
    generate_shape_inputs()
elif cmd == "morph":  # INPUT OP CONN RADIUS OUTPUT...
    expected = reference(np.load(args[0]), args[1], int(args[2]), int(args[3]))
    fail([same(expected, out) for out in args[4:]])
elif cmd in ("composite", "stages"):
    # INPUT CONN RADIUS: c_OP.npy and c_OP_g.npy (plug-in, --generic) for the five operations, from
    # the definitions in NumPy ("composite", data without NaN) or from the tool's own stages
    # d.npy, e.npy, de.npy (dilation of the erosion), ed.npy ("stages").
    a = np.load(args[0])
    if cmd == "composite":
        conn, radius = int(args[1]), int(args[2])
        dilate = lambda x: reference(x, "dilate", conn, radius)
        erode = lambda x: reference(x, "erode", conn, radius)
    else:
        staged = {"d": np.load("d.npy"), "e": np.load("e.npy"), "de": np.load("de.npy"), "ed": np.load("ed.npy")}
        dilate = lambda x: staged["d"] if x is a else staged["de"]
        erode = lambda x: staged["e"] if x is a else staged["ed"]
    errors = []
    for op in ("open", "close", "gradient", "tophat", "blackhat"):
        expected = composite(a, op, dilate, erode)
        errors += [same(expected, f"c_{op}.npy"), same(expected, f"c_{op}_g.npy")]
    fail(errors)
elif cmd == "shape-composites":  # INPUT SHAPE JSON-OPTIONS: c_OP.npy and c_OP_g.npy
    shape_composites(*args)
elif cmd == "order":  # INPUT OPENED CLOSED OPENED-TWICE CLOSED-TWICE
    a, o, c = (np.load(p) for p in args[:3])
    fail(["opening above the input" if (o > a).any() else None, "closing below the input" if (c < a).any() else None,
          same(o, args[3]), same(c, args[4])])
elif cmd == "same":  # EXPECTED OUTPUT...
    fail([same(np.load(args[0]), out) for out in args[1:]])
elif cmd == "extrema":  # INPUT PER OUTPUT...
    extrema(*args)
elif cmd == "shape-cases":
    shape_cases()
elif cmd == "shapes":  # MANIFEST
    shapes_check(args[0])
