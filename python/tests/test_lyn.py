"""lyn's Python package against the command-line tool, and its own contract: out=, in place,
copies, errors, progress, cancellation, extrema."""
import _thread
import json
import os
import threading
import time

import numpy as np
import pytest

import lyn
from conftest import DTYPES, random_image, same_bits

# (shape, options, image shape). Odd extents around the vector widths.
SHAPE_CASES = [
    ("square", {}, (29, 37)),
    ("square", {"radius": 2, "connectivity": 4}, (29, 37)),
    ("square", {"radius": 3, "connectivity": 8}, (31, 70)),
    ("cube", {}, (9, 17, 23)),
    ("cube", {"radius": 2, "connectivity": 6}, (9, 17, 23)),
    ("cube", {"radius": 2, "connectivity": 18}, (9, 17, 35)),
    ("disk", {"radius": 3}, (29, 37)),
    ("disk", {"radius": 4, "exact": True}, (29, 37)),
    ("ball", {"radius": 2}, (9, 17, 23)),
    ("ball", {"radius": 3, "exact": True}, (9, 17, 23)),
    ("line", {"length": 7, "angle": 30.0}, (29, 37)),
    ("disk3d", {"radius": 2, "angles": (30.0, 60.0)}, (9, 17, 23)),
    ("line3d", {"length": 5, "angles": (30.0, 60.0)}, (9, 17, 23)),
]


def tool_args(shape, options):
    args = ["--shape", shape]
    for k, v in options.items():
        if k == "exact":
            args += ["--exact"] if v else []
        elif k == "angles":
            args += ["--angles", f"{v[0]},{v[1]}"]
        else:
            args += [f"--{k}", v]
    return args


def case_id(case):
    shape, options, _ = case
    return shape + "".join(f"-{k}{v}" for k, v in options.items())


@pytest.mark.parametrize("case", SHAPE_CASES, ids=case_id)
def test_every_shape_and_dtype_matches_the_tool(case, tool, tmp_path):
    shape, options, extent = case
    for op in ("dilate", "erode"):
        for i, dtype in enumerate(DTYPES):
            image = random_image(extent, dtype, seed=i)
            src, dst = tmp_path / f"in-{i}.npy", tmp_path / f"out-{op}-{i}.npy"
            np.save(src, image)
            tool(op, src, dst, *tool_args(shape, options))
            expected = np.load(dst)
            got = getattr(lyn, op)(image, shape, **options)
            assert same_bits(got, expected), (op, np.dtype(dtype).name)
            assert same_bits(getattr(lyn, op)(image, shape, generic=True, threads=1, **options), expected)


def test_bool_images_follow_their_uint8_values():
    image = random_image((3, 21, 19), bool)
    for op in (lyn.dilate, lyn.erode):
        got = op(image, "cube")
        assert got.dtype == bool
        assert np.array_equal(got, op(image.view(np.uint8), "cube").astype(bool))


def test_a_2d_shape_on_a_volume_works_plan_by_plan_and_a_3d_shape_on_an_image_as_one_plan():
    volume = random_image((4, 19, 21), np.int16)
    got = lyn.dilate(volume, "square", radius=2)
    for z in range(volume.shape[0]):
        assert same_bits(got[z], lyn.dilate(volume[z], "square", radius=2))
    image = volume[0]
    assert same_bits(lyn.erode(image, "cube", radius=2), lyn.erode(image[None], "cube", radius=2)[0])


def test_four_and_five_axes_are_sequences_of_volumes():
    data = random_image((2, 3, 5, 9, 11), np.float32)
    got = lyn.dilate(data, "cube")
    for l in range(2):
        for s in range(3):
            assert same_bits(got[l, s], lyn.dilate(data[l, s], "cube"))


@pytest.mark.parametrize("dtype", [np.uint8, np.float64])
def test_out_and_in_place_give_the_same_bits(dtype):
    image = random_image((7, 33, 41), dtype)
    expected = lyn.erode(image, "cube", radius=2)
    out = np.empty_like(image)
    assert lyn.erode(image, "cube", radius=2, out=out) is out
    assert same_bits(out, expected)
    inplace = image.copy()
    assert lyn.erode(inplace, "cube", radius=2, out=inplace) is inplace
    assert same_bits(inplace, expected)


def test_an_out_overlapping_the_input_without_being_it_reads_the_input_first():
    buf = random_image((40, 64), np.int32)
    image = buf[:32]
    expected = lyn.dilate(image, "square", radius=3)
    lyn.dilate(image, "square", radius=3, out=buf[8:])
    assert same_bits(buf[8:], expected)


def test_non_contiguous_and_foreign_byte_order_inputs_are_read_correctly():
    base = random_image((10, 30, 44), np.float32)
    expected = lyn.dilate(base[:, ::2, 1::3].copy(), "cube")
    assert same_bits(lyn.dilate(base[:, ::2, 1::3], "cube"), expected)
    fortran = np.asfortranarray(base)
    assert same_bits(lyn.dilate(fortran, "cube"), lyn.dilate(base, "cube"))
    swapped = base.astype(base.dtype.newbyteorder(">"))
    assert np.array_equal(lyn.dilate(swapped, "cube"), lyn.dilate(base, "cube"), equal_nan=True)
    before = base.copy()
    lyn.dilate(base[:, ::2], "cube")
    assert same_bits(base, before)  # inputs are never modified


def test_radius_zero_returns_a_copy_into_a_new_array_or_out():
    image = random_image((5, 9, 13), np.float64)
    got = lyn.dilate(image, "cube", radius=0)
    assert got is not image and same_bits(got, image)
    out = np.zeros_like(image)
    assert lyn.erode(image, "square", radius=0, out=out) is out and same_bits(out, image)
    assert same_bits(lyn.dilate(image[:, ::2], "cube", radius=0), image[:, ::2].copy())
    assert same_bits(lyn.dilate(image, "cube", radius=0, out=image), out)


def test_empty_images_give_empty_results():
    for shape in [(0, 5), (3, 0, 4)]:
        got = lyn.dilate(np.zeros(shape, np.uint8), "cube")
        assert got.shape == shape and got.dtype == np.uint8


a2 = np.zeros((8, 8), np.uint8)
ERRORS = [
    (lambda: lyn.dilate(a2, "star"), ValueError, "shape"),
    (lambda: lyn.dilate(a2, "square", radius=-1), ValueError, "radius"),
    (lambda: lyn.dilate(a2, "square", radius=1.5), ValueError, "radius"),
    (lambda: lyn.dilate(a2, "square", radius="2"), ValueError, "radius"),
    (lambda: lyn.dilate(a2, "square", connectivity=6), ValueError, "connectivity"),
    (lambda: lyn.dilate(a2, "cube", connectivity=8), ValueError, "connectivity"),
    (lambda: lyn.dilate(a2, "cube", length=3), ValueError, "length"),
    (lambda: lyn.dilate(a2, "square", exact=True), ValueError, "exact"),
    (lambda: lyn.dilate(a2, "disk"), ValueError, "radius"),
    (lambda: lyn.dilate(a2, "line", length=0), ValueError, "length"),
    (lambda: lyn.dilate(a2, "line", length=3, angle=float("nan")), ValueError, "angle"),
    (lambda: lyn.dilate(a2, "line3d", length=3, angles=(1.0,)), ValueError, "angles"),
    (lambda: lyn.dilate(a2, "square", threads=0), ValueError, "threads"),
    (lambda: lyn.dilate(a2, "square", progress=3), ValueError, "progress"),
    (lambda: lyn.dilate(a2, "square", cancel=object()), ValueError, "cancel"),
    (lambda: lyn.dilate(a2, "square", out=np.zeros((8, 9), np.uint8)), ValueError, "out"),
    (lambda: lyn.dilate(a2, "square", out=np.zeros((8, 8), np.int8)), ValueError, "out"),
    (lambda: lyn.dilate(a2, "square", out=np.zeros((8, 16), np.uint8)[:, ::2]), ValueError, "out"),
    (lambda: lyn.dilate(np.zeros(8, np.uint8), "square"), ValueError, "image"),
    (lambda: lyn.dilate(np.zeros((1,) * 6, np.uint8), "square"), ValueError, "image"),
    (lambda: lyn.dilate(np.zeros((4, 4), np.complex64), "square"), TypeError, "complex64"),
    (lambda: lyn.dilate(np.zeros((4, 4), np.float16), "square"), TypeError, "float16"),
    (lambda: lyn.dilate([[1, 2], [3, 4]], "square"), TypeError, "image"),
    (lambda: lyn.extrema(np.zeros((0, 4), np.uint8)), ValueError, "empty"),
    (lambda: lyn.extrema(np.zeros((3, 0, 4), np.float32), per="plan"), ValueError, "empty"),
    (lambda: lyn.extrema(a2, per=("row",)), ValueError, "per"),
    (lambda: lyn.extrema(np.zeros((4, 4), object)), TypeError, "object"),
]


@pytest.mark.parametrize("call,error,word", ERRORS, ids=range(len(ERRORS)))
def test_bad_arguments_raise_an_error_naming_them(call, error, word):
    with pytest.raises(error, match=word):
        call()


def test_read_only_out_is_refused():
    out = np.zeros((8, 8), np.uint8)
    out.flags.writeable = False
    with pytest.raises(ValueError, match="out"):
        lyn.dilate(a2, "square", out=out)


def test_host_failures_raise_lyn_errors_carrying_the_host_message(monkeypatch):
    # A grain-size setting the host refuses surfaces as the host's RuleException.
    monkeypatch.setenv("LYN_GRAIN_SIZES", "1,0,1")
    with pytest.raises(lyn.Error, match="LYN_GRAIN_SIZES") as info:
        lyn.dilate(np.zeros((4, 16, 16), np.uint8), "cube")
    assert isinstance(info.value, lyn.RuleError) and info.value.kind == "RuleException"


def long_volume():
    return random_image((128, 128, 128), np.uint8, specials=False)


def test_progress_increases_to_one():
    seen = []
    lyn.dilate(random_image((40, 64, 64), np.uint8), "cube", radius=3, progress=seen.append, generic=True)
    assert seen and seen[-1] == 1.0
    assert all(a < b for a, b in zip(seen, seen[1:]))
    assert all(0.0 <= f <= 1.0 for f in seen)


def _after_first_progress(action):
    """A progress callable, and a thread that runs `action` once the run has reported progress:
    the cancellation comes from another thread, mid-run, however fast the machine."""
    seen, started = [], threading.Event()

    def progress(f):
        seen.append(f)
        started.set()

    thread = threading.Thread(target=lambda: started.wait(30) and action(), daemon=True)
    thread.start()
    return seen, progress, thread


# 600 passes over 128^3 voxels on one thread take far longer than the cancellation needs. Six-connected:
# 26-connected passes are one box in the generic code, which would finish first.
def test_a_cancel_event_set_from_another_thread_stops_the_run():
    cancel = threading.Event()
    seen, progress, thread = _after_first_progress(cancel.set)
    t0 = time.monotonic()
    with pytest.raises(lyn.Cancelled):
        lyn.dilate(long_volume(), "cube", radius=600, connectivity=6, generic=True, threads=1, progress=progress, cancel=cancel)
    thread.join()
    assert time.monotonic() - t0 < 20
    assert seen and seen[-1] < 1.0


def test_keyboard_interrupt_cancels_the_run():
    seen, progress, thread = _after_first_progress(_thread.interrupt_main)
    with pytest.raises(KeyboardInterrupt):
        lyn.erode(long_volume(), "cube", radius=600, connectivity=6, generic=True, threads=1, progress=progress)
    thread.join()
    assert seen and seen[-1] < 1.0


def test_an_exception_in_progress_cancels_and_propagates():
    def progress(f):
        raise RuntimeError("stop here")

    with pytest.raises(RuntimeError, match="stop here"):
        lyn.dilate(long_volume(), "cube", radius=60, generic=True, threads=1, progress=progress)


def test_the_gil_is_released_while_computing():
    # Another thread keeps running Python code during the call: count its steps that fall inside the
    # call's span, which a held GIL would leave empty (a count of steps over the whole run would
    # depend on how long the call takes on a loaded machine).
    volume = long_volume()
    span = []

    def work():
        start = time.perf_counter()
        lyn.dilate(volume, "cube", radius=16, connectivity=6, generic=True, threads=1)  # not one box: long enough
        span.extend((start, time.perf_counter()))

    steps = []
    t = threading.Thread(target=work)
    t.start()
    while t.is_alive():
        steps.append(time.perf_counter())
        time.sleep(0.001)
    t.join()
    inside = sum(span[0] < s < span[1] for s in steps)
    assert inside >= 5, (inside, span[1] - span[0])


def test_calls_from_many_threads_at_once_and_from_forked_children():
    # Calls run on threads lyn keeps between calls: four at once need four. A forked child inherits
    # none of them, nor TBB's workers, but the state of their locks: before a fork, lyn ends its
    # idle threads and TBB's, so that a child's call cannot wait forever on a lock held at the fork.
    # Several rounds, since a fork that catches a worker at the wrong moment is a matter of timing.
    import multiprocessing

    images = [random_image((24, 48, 40), t) for t in (np.uint8, np.int16, np.float32, np.float64)]
    expected = [lyn.dilate(a, "ball", radius=2, threads=1) for a in images]
    ctx = multiprocessing.get_context("fork")
    for round in range(5):
        barrier = threading.Barrier(len(images))
        results = [None] * len(images)

        def call(i):
            barrier.wait(30)
            results[i] = lyn.dilate(images[i], "ball", radius=2, threads=2)

        threads = [threading.Thread(target=call, args=(i,)) for i in range(len(images))]
        for t in threads:
            t.start()
        for t in threads:
            t.join(60)
        assert all(same_bits(r, e) for r, e in zip(results, expected))

        before = len(os.listdir("/proc/self/task"))
        queue = ctx.Queue()
        child = ctx.Process(target=lambda: queue.put(lyn.dilate(images[round % 4], "ball", radius=2).tobytes()))
        child.start()
        try:
            got = queue.get(timeout=60)  # before the join: a child exits only once the pipe has taken it all
        except Exception:
            child.kill()
            pytest.fail("a call in a forked child never finished")
        child.join(60)
        assert child.exitcode == 0 and got == expected[round % 4].tobytes()
        # The kept threads (at least the one that ran the calls) and TBB's workers were ended for
        # the fork; lyn starts new ones at the next call.
        assert len(os.listdir("/proc/self/task")) < before


F32_MAX = float(np.finfo(np.float32).max)
EXTREMA_CASES = [
    (np.array([[3, -7], [5, 2]], np.int8), -7, 5),
    (np.array([[0, 2**32 - 1]], np.uint32), 0, 2**32 - 1),
    (np.array([[-(2**31), 7]], np.int32), -(2**31), 7),
    # 64-bit values that a double cannot tell apart, the types' extremes among them.
    (np.array([[2**64 - 2, 2**64 - 1], [2**64 - 3, 2**63]], np.uint64), 2**63, 2**64 - 1),
    (np.array([[2**64 - 2, 2**64 - 3]], np.uint64), 2**64 - 3, 2**64 - 2),
    (np.array([[-(2**63), 2**63 - 1, -(2**63) + 1]], np.int64), -(2**63), 2**63 - 1),
    (np.array([[2**53 + 3, 2**53 + 1, -(2**53) - 1]], np.int64), -(2**53) - 1, 2**53 + 3),
    # Infinities, alone or beside the finite extremes the scan starts from.
    (np.array([[1.5, np.nan], [-np.inf, 2.0]], np.float64), -np.inf, 2.0),
    (np.array([[np.nan, np.inf], [1.0, np.nan]], np.float32), 1.0, np.inf),
    (np.array([[np.inf, np.nan, np.inf]], np.float64), np.inf, np.inf),
    (np.array([[-np.inf, -np.inf]], np.float32), -np.inf, -np.inf),
    (np.array([[F32_MAX, -F32_MAX, np.nan]], np.float32), -F32_MAX, F32_MAX),
    (np.array([[True, False]]), 0, 1),
]


@pytest.mark.parametrize("generic", [False, True], ids=["plugin", "generic"])
@pytest.mark.parametrize("image,lo,hi", EXTREMA_CASES, ids=range(len(EXTREMA_CASES)))
def test_extrema_are_exact_python_numbers(image, lo, hi, generic):
    got = lyn.extrema(image, generic=generic)
    assert got == (lo, hi)
    wanted = float if image.dtype.kind == "f" else int
    assert all(type(v) is wanted for v in got)
    # Wide enough for the vector paths, with the extremes in the middle of a plan.
    volume = np.resize(np.sort(image, axis=None)[len(image.flat) // 2], (3, 5, 70)).astype(image.dtype)
    volume[1, 2, 33:33 + image.size] = image.ravel()
    got = lyn.extrema(volume, per="plan", generic=generic)
    assert got[0][1, 0, 0] == lo and got[1][1, 0, 0] == hi
    assert got[0].dtype == {"u": np.uint64, "i": np.int64, "b": np.int64, "f": np.float64}[image.dtype.kind]


@pytest.mark.parametrize("generic", [False, True], ids=["plugin", "generic"])
def test_extrema_of_only_nan_is_nan(generic):
    for dtype in (np.float32, np.float64):
        lo, hi = lyn.extrema(np.full((3, 40), np.nan, dtype), generic=generic)
        assert type(lo) is float and np.isnan(lo) and np.isnan(hi)


def test_extrema_per_plan_and_axes():
    data = random_image((2, 3, 4, 5, 6), np.int16)
    lo, hi = lyn.extrema(data, per=("plan", "axis3", "axis4"))
    assert lo.shape == (4, 3, 2) and lo.dtype == np.int64
    assert np.array_equal(lo, data.min(axis=(3, 4)).transpose(2, 1, 0))
    assert np.array_equal(hi, data.max(axis=(3, 4)).transpose(2, 1, 0))
    lo, hi = lyn.extrema(data, per="axis3")
    assert lo.shape == (1, 3, 1) and np.array_equal(lo[0, :, 0], data.min(axis=(0, 2, 3, 4)))
    volume = random_image((3, 5, 7), np.float32, specials=False)
    volume[1] = np.nan
    lo, hi = lyn.extrema(volume, per=("plan",))
    assert lo.dtype == np.float64 and lo.shape == (3, 1, 1)
    assert np.isnan(lo[1, 0, 0]) and np.isnan(hi[1, 0, 0])
    assert lo[0, 0, 0] == volume[0].min() and hi[2, 0, 0] == volume[2].max()


def test_extrema_with_and_without_the_plug_in_agree():
    for i, dtype in enumerate(DTYPES):
        image = random_image((6, 31, 45), dtype, seed=i)
        a = lyn.extrema(image, per=("plan",))
        b = lyn.extrema(image, per=("plan",), generic=True)
        assert all(same_bits(x, y) for x, y in zip(a, b))


@pytest.mark.parametrize("dtype", [np.uint64, np.int64, np.int8, np.float32, np.float64])
def test_extrema_per_element_agree_with_the_tool(tool, tmp_path, dtype):
    data = random_image((2, 3, 4, 5, 37), dtype, seed=3)
    if data.dtype.kind == "f":
        data[0, 1, 2] = np.nan  # no value
        data[1, 2, 3] = np.inf
        data[1, 2, 3, 0, 0] = np.nan
        data[0, 0, 1] = -np.inf
    path = tmp_path / "x.npy"
    np.save(path, data)
    report = json.loads(tool("extrema", path, "--per", "plan,axis3,axis4", "--json"))
    lo, hi = lyn.extrema(data, per=("plan", "axis3", "axis4"))
    assert list(lo.shape) == report["shape"]

    def read(v):  # strict JSON: infinities as strings, no value as null
        return float("nan") if v is None else float(v) if isinstance(v, str) else v

    for got, listed in ((lo, report["min"]), (hi, report["max"])):
        # The JSON lists the measurement in its own order, plans fastest.
        for g, e in zip(got.ravel(order="F").tolist(), map(read, listed), strict=True):
            assert g == e or (g != g and e != e), (g, e)


def test_info_reports_the_plug_in_and_runners():
    info = lyn.info()
    assert set(info) >= {"processor", "plugin", "runners"}
    assert isinstance(info["processor"]["features"], list)
    assert info["plugin"]["loaded"] == (info["plugin"]["path"] is not None)
    assert "lyn::morphology::Dilation3d" in info["runners"]
    if info["plugin"]["loaded"]:
        assert info["plugin"]["path"].endswith(".so")


def test_outputs_and_lyn_empty_are_aligned_for_vector_stores():
    image = random_image((3, 17, 19), np.float32)
    for a in (lyn.dilate(image, "cube"), lyn.empty_like(image), lyn.empty((4, 5), np.int64)):
        assert a.ctypes.data % 64 == 0 and a.flags.c_contiguous and a.flags.writeable
    assert lyn.empty_like(image.astype(">f4")).dtype == np.float32 and lyn.empty(0, np.uint8).shape == (0,)
    out = lyn.empty_like(image)
    assert same_bits(lyn.dilate(image, "cube", out=out), lyn.dilate(image, "cube"))


def test_contiguous_inputs_and_out_are_not_copied():
    import tracemalloc

    image = random_image((16, 256, 256), np.uint16, specials=False)  # 2 MiB
    out = lyn.empty_like(image)
    lyn.dilate(image, "cube", out=out)
    tracemalloc.start()
    try:
        lyn.dilate(image, "cube", out=out)
        lyn.erode(out, "cube", out=out)
        lyn.extrema(image)
        _, peak = tracemalloc.get_traced_memory()
    finally:
        tracemalloc.stop()
    assert peak < image.nbytes // 8


COMPOSITES = {"opening": "open", "closing": "close", "gradient": "gradient", "tophat": "tophat", "blackhat": "blackhat"}


@pytest.mark.parametrize("case", SHAPE_CASES[::3] + [("line", {"length": 4, "angle": 30.0}, (29, 37))], ids=case_id)
def test_opening_closing_gradient_and_tophats_match_the_tool(case, tool, tmp_path):
    shape, options, extent = case
    src = tmp_path / "in.npy"
    for i, dtype in enumerate((np.uint8, np.int8, np.float32)):
        image = random_image(extent, dtype, seed=20 + i)
        np.save(src, image)
        for name, op in COMPOSITES.items():
            dst = tmp_path / f"{op}.npy"
            tool(op, src, dst, *tool_args(shape, options), "--force")
            expected = np.load(dst)
            fn = getattr(lyn, name)
            assert same_bits(fn(image, shape, **options), expected), (name, dtype)
            assert same_bits(fn(image, shape, generic=True, **options), expected), (name, dtype, "generic")
            buf = image.copy()
            assert fn(buf, shape, out=buf, **options) is buf
            assert same_bits(buf, expected), (name, dtype, "in place")


def test_composites_report_progress_and_refuse_bad_arguments(monkeypatch):
    image = random_image((40, 50), np.uint16, seed=3)
    seen = []
    lyn.gradient(image, "square", radius=2, progress=seen.append)
    assert seen and seen[-1] == 1.0 and seen == sorted(seen)
    with pytest.raises(ValueError, match="connectivity"):
        lyn.opening(image, "square", connectivity=5)
    with pytest.raises(ValueError, match="shape"):
        lyn.tophat(image, "star")
    # The gradient's intermediate image counts against the memory budget; the opening needs none.
    monkeypatch.setenv("LYN_MEMORY_BUDGET", "1K")
    with pytest.raises(lyn.RuleError, match="memory budget"):
        lyn.gradient(image, "square")
    assert same_bits(lyn.opening(image, "square"), lyn.dilate(lyn.erode(image, "square"), "square"))
