"""lyn.dask against the in-memory calls: bit for bit, whatever the chunking and the scheduler."""
import numpy as np
import pytest

da = pytest.importorskip("dask.array")

import lyn
import lyn.dask
from conftest import random_image, same_bits

# (shape, options, extent, chunkings): uneven chunks, chunks of 1, chunks smaller than the reach.
CASES = [
    ("square", {"radius": 3}, (23, 41), [(5, 7), (1, 3), (23, 2), ((3, 9, 11), (20, 21))]),
    ("square", {"radius": 2, "connectivity": 4}, (3, 23, 41), [(1, 4, 9), (2, 23, 1)]),
    ("cube", {}, (11, 17, 29), [(3, 5, 7), (1, 1, 29), (11, 17, 1)]),
    ("cube", {"radius": 4, "connectivity": 6}, (11, 17, 29), [(2, 3, 5), (4, 17, 6)]),
    ("cube", {"radius": 2, "connectivity": 18}, (2, 9, 10, 13), [(1, 2, 3, 4)]),
    ("cube", {"radius": 20}, (5, 9, 13), [(2, 4, 6)]),
    ("ball", {"radius": 3}, (11, 17, 29), [(4, 5, 7), (2, 2, 2)]),
    ("ball", {"radius": 2, "exact": True}, (11, 17, 29), [(3, 5, 7)]),
    ("disk", {"radius": 3}, (23, 41), [(5, 7), (2, 2)]),
    ("line", {"length": 9, "angle": 30.0}, (23, 41), [(5, 7), (3, 2)]),
    ("line3d", {"length": 7, "angles": (30.0, 60.0)}, (11, 17, 29), [(3, 5, 7)]),
    ("disk3d", {"radius": 3, "angles": (10.0, 45.0)}, (11, 17, 29), [(3, 5, 7)]),
]


@pytest.mark.parametrize("case", CASES, ids=lambda c: c[0] + "".join(f"-{k}{v}" for k, v in c[1].items()))
@pytest.mark.parametrize("dtype", [np.uint8, np.int16, np.float32, np.float64])
def test_equals_the_in_memory_call_whatever_the_chunking(case, dtype):
    shape, options, extent, chunkings = case
    image = random_image(extent, dtype)
    for op in ("dilate", "erode"):
        expected = getattr(lyn, op)(image, shape, **options)
        for chunks in chunkings:
            lazy = getattr(lyn.dask, op)(da.from_array(image, chunks=chunks), shape, **options)
            assert lazy.dtype == image.dtype and lazy.shape == image.shape
            got = lazy.compute(scheduler="threads")
            assert same_bits(got, expected), (op, chunks)


def test_the_graph_adds_at_most_two_tasks_per_block():
    x = da.zeros((40, 64, 64), dtype=np.uint8, chunks=16)
    for shape, options in [("cube", {}), ("ball", {"radius": 20}), ("line", {"length": 5})]:
        lazy = lyn.dask.dilate(x, shape, **options)
        assert len(dict(lazy.__dask_graph__())) - len(dict(x.__dask_graph__())) <= 2 * x.npartitions


def test_chunks_merges_blocks_and_keeps_the_result():
    image = random_image((20, 33, 47), np.float32)
    x = da.from_array(image, chunks=(3, 5, 7))
    expected = lyn.erode(image, "ball", radius=2)
    for chunks in ("auto", (10, 33, 24), {0: 7, 1: 11}):
        lazy = lyn.dask.erode(x, "ball", radius=2, chunks=chunks)
        assert lazy.chunks == x.rechunk(chunks).chunks
        assert same_bits(lazy.compute(scheduler="threads"), expected), chunks


def test_depth_is_the_reach_clipped_to_the_extent():
    x = da.zeros((3, 40, 50), dtype=np.uint8, chunks=10)
    assert lyn.dask.depth(x, "cube", radius=5) == {0: 2, 1: 5, 2: 5}
    assert lyn.dask.depth(x, "square", radius=5) == {0: 0, 1: 5, 2: 5}
    assert lyn.dask.depth(x, "disk", radius=7, exact=True) == {0: 0, 1: 7, 2: 7}
    assert lyn.dask.depth(x, "line", length=9) == {0: 0, 1: 0, 2: 4}
    assert lyn.dask.depth(x, "line3d", length=9, angles=(0.0, 90.0)) == {0: 2, 1: 0, 2: 0}
    assert lyn.dask.depth(x, "ball", radius=0) == {0: 0, 1: 0, 2: 0}


EXTREMA_PER = [None, ("plan",), ("axis3",), ("plan", "axis4"), ("plan", "axis3", "axis4")]


@pytest.mark.parametrize("per", EXTREMA_PER, ids=str)
@pytest.mark.parametrize("dtype", [np.uint16, np.int32, np.float64])
def test_extrema_equals_the_in_memory_call(per, dtype):
    data = random_image((2, 3, 5, 9, 11), dtype)
    if np.dtype(dtype).kind == "f":
        data[1, 2, 3] = np.nan  # one element with no value
    expected = lyn.extrema(data, per=per)
    got = lyn.dask.extrema(da.from_array(data, chunks=(1, 2, 2, 4, 5)), per=per)
    if per is None:
        assert got == expected
        assert all(type(g) is type(e) for g, e in zip(got, expected))
    else:
        for g, e in zip(got, expected):
            assert g.dtype == e.dtype and g.shape == e.shape
            assert np.array_equal(g, e, equal_nan=True)


def test_extrema_on_a_volume_with_nan_chunks():
    volume = random_image((6, 8, 10), np.float32, specials=False)
    volume[:3] = np.nan
    assert lyn.dask.extrema(da.from_array(volume, chunks=3)) == lyn.extrema(volume)


def test_extrema_keep_64_bit_integers_exact():
    # Neighbours that a double cannot tell apart, in different chunks.
    unsigned = np.full((4, 6, 10), 2**64 - 2, np.uint64)
    unsigned[3, 5, 9], unsigned[0, 0, 0] = 2**64 - 1, 2**64 - 3
    signed = np.full((4, 6, 10), -(2**63) + 2, np.int64)
    signed[1, 2, 3], signed[2, 3, 4] = -(2**63), 2**63 - 1
    for data in (unsigned, signed):
        x = da.from_array(data, chunks=(2, 3, 4))
        assert lyn.dask.extrema(x) == lyn.extrema(data) == (int(data.min()), int(data.max()))
        for g, e in zip(lyn.dask.extrema(x, per="plan"), lyn.extrema(data, per="plan")):
            assert same_bits(g, e)


def test_errors_are_raised_when_the_graph_is_built():
    x = da.zeros((8, 8), dtype=np.uint8, chunks=4)
    with pytest.raises(ValueError, match="radius"):
        lyn.dask.dilate(x, "square", radius=-2)
    with pytest.raises(TypeError, match="array"):
        lyn.dask.dilate(np.zeros((8, 8)), "square")
    with pytest.raises(TypeError, match="complex"):
        lyn.dask.erode(da.zeros((8, 8), dtype=np.complex64, chunks=4), "square")
    with pytest.raises(ValueError, match="empty"):
        lyn.dask.extrema(da.zeros((0, 8), dtype=np.uint8, chunks=4))


@pytest.fixture(scope="module")
def client():
    distributed = pytest.importorskip("distributed")
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0",
                                       silence_logs=50)
    c = distributed.Client(cluster)
    yield c
    c.close()
    cluster.close()


def test_runs_on_a_local_cluster_of_two_worker_processes(client):
    volume = random_image((20, 33, 47), np.int16)
    x = da.from_array(volume, chunks=(6, 10, 13))
    for shape, options in [("cube", {"radius": 2, "connectivity": 18}), ("ball", {"radius": 3})]:
        lazy = lyn.dask.dilate(x, shape, **options)
        assert same_bits(client.compute(lazy).result(), lyn.dilate(volume, shape, **options))
    lo, hi = client.compute(list(lyn.dask.extrema(x, per=("plan",), compute=False)), sync=True)
    for g, e in zip((lo, hi), lyn.extrema(volume, per=("plan",))):
        assert g.dtype == e.dtype and np.array_equal(g, e)
    assert lyn.dask.extrema(x) == lyn.extrema(volume)  # the client is the default scheduler now
    assert len(client.scheduler_info()["workers"]) == 2
