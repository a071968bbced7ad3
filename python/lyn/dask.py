"""lyn over dask arrays: the same results as the in-memory calls, bit for bit, whatever the chunking.

Each chunk is computed with the margin the structuring element reaches along each axis (clipped
to the array's extent), taken from its neighbours; no margin is invented at the array's outer
edges, so there lyn's own border applies exactly as in the in-memory call. Runs on any dask
scheduler, dask.distributed included.
"""
import functools
import warnings

import dask.array as da
import numpy as np
from dask.base import tokenize
from dask.highlevelgraph import HighLevelGraph

import lyn as _lyn_pkg
from . import _lyn

__all__ = ["dilate", "erode", "extrema", "depth"]


def _check_array(array):
    if not isinstance(array, da.Array):
        raise TypeError(f"array: expected a dask.array.Array, not {type(array).__name__}")
    if not 2 <= array.ndim <= 5:
        raise ValueError(f"array: expected 2 to 5 axes ((rows, cols) ... (axis4, axis3, plans, rows, cols)), "
                         f"got {array.ndim}")


def depth(array, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None):
    """The overlap per axis that `shape` needs on `array` (a dict axis -> depth, clipped to the extent)."""
    _check_array(array)
    options = _lyn_pkg._shape_options(shape, radius, connectivity, length, angle, angles, exact)
    return _depth(array, shape, options)


def _depth(array, shape, options):
    plans, rows, cols = _lyn.reach(shape, options)
    reach = [0] * array.ndim
    reach[-1], reach[-2] = cols, rows
    if array.ndim >= 3:
        reach[-3] = plans
    # A margin of extent - 1 already brings the whole axis to every chunk.
    return {axis: max(0, min(r, n - 1)) for axis, (r, n) in enumerate(zip(reach, array.shape))}


def _block(block, dilate, shape, options, threads, generic):
    return _lyn.morphology(dilate, block, shape, options, None, threads, generic, None, None)


def _halo(block, pieces):
    """The parts of `block` that neighbouring output blocks need as their margin, copied so that
    sending them does not send the block: {output block index: array}."""
    return {index: block[slices].copy() for index, slices in pieces}


def _overlapped_block(block, *halos, index, region, own, placed, trim, fn):
    """`fn` of one block with its margins: the block and the pieces its neighbours' halo tasks cut
    for it, placed in one array of the region the shape reaches, computed, and cut back."""
    if not placed:
        return fn(block)
    area = np.empty(region, block.dtype)
    area[own] = block
    for halo, where in zip(halos, placed):
        area[where] = halo[index]
    return np.ascontiguousarray(fn(area)[trim])


def _overlap_graph(array, depth, fn, name):
    """A dask array of `fn` over each block of `array` grown by `depth` (axis -> margin; never past
    the array's edges), cut back to the block.

    dask's map_overlap makes about 24 tasks per 3D block (a slice task per neighbour, a concatenation,
    the call, a trim). This graph has at most two per block: one halo task that cuts, from an input
    block, every margin its neighbours need, and the call, which assembles its block's region from
    the block and its neighbours' halos. Chunks smaller than the margin take pieces from blocks
    further away in the same way.
    """
    ndim = array.ndim
    bounds = [np.cumsum((0,) + tuple(c)).tolist() for c in array.chunks]
    # Per axis and output block i: the region [lo, hi) and the input blocks j it reads.
    regions, readers = [], []
    for axis in range(ndim):
        b, d = bounds[axis], depth[axis]
        n = b[-1]
        axis_regions, axis_readers = [], []
        for i in range(len(b) - 1):
            lo, hi = max(0, b[i] - d), min(n, b[i + 1] + d)
            axis_regions.append((lo, hi))
            axis_readers.append([j for j in range(len(b) - 1) if b[j] < hi and b[j + 1] > lo])
        regions.append(axis_regions)
        readers.append(axis_readers)

    def part(axis, i, j):
        """Where block j's piece for output block i sits in block j, and in i's region."""
        lo, hi = regions[axis][i]
        start, stop = max(lo, bounds[axis][j]), min(hi, bounds[axis][j + 1])
        return (slice(start - bounds[axis][j], stop - bounds[axis][j]), slice(start - lo, stop - lo))

    halo_name = "lyn-halo-" + name.split("-", 1)[1]
    pieces = {}  # input block -> [(output block, its slices in the input block)]
    tasks = {}
    for i in np.ndindex(*array.numblocks):
        region = tuple(hi - lo for lo, hi in (regions[a][i[a]] for a in range(ndim)))
        own = tuple(part(a, i[a], i[a])[1] for a in range(ndim))
        halos, placed = [], []
        for j in np.ndindex(*(len(readers[a][i[a]]) for a in range(ndim))):
            j = tuple(readers[a][i[a]][j[a]] for a in range(ndim))
            if j == i:
                continue
            parts = [part(a, i[a], j[a]) for a in range(ndim)]
            pieces.setdefault(j, []).append((i, tuple(p[0] for p in parts)))
            halos.append((halo_name,) + j)
            placed.append(tuple(p[1] for p in parts))
        call = functools.partial(_overlapped_block, index=i, region=region, own=own, placed=tuple(placed),
                                 trim=own, fn=fn)
        tasks[(name,) + i] = (call, (array.name,) + i, *halos)
    meta = np.empty((0,) * ndim, array.dtype)
    if not pieces:
        graph = HighLevelGraph.from_collections(name, tasks, dependencies=[array])
        return da.Array(graph, name, chunks=array.chunks, dtype=array.dtype, meta=meta)
    halo_tasks = {(halo_name,) + j: (functools.partial(_halo, pieces=tuple(p)), (array.name,) + j)
                  for j, p in pieces.items()}
    base = HighLevelGraph.from_collections(halo_name, halo_tasks, dependencies=[array])
    layers = dict(base.layers)
    layers[name] = tasks
    dependencies = dict(base.dependencies)
    dependencies[name] = {halo_name, *array.__dask_layers__()}
    return da.Array(HighLevelGraph(layers, dependencies), name, chunks=array.chunks, dtype=array.dtype, meta=meta)


def _morphology(dilate, array, shape, radius, connectivity, length, angle, angles, exact, threads, generic, chunks):
    _check_array(array)
    options = _lyn_pkg._shape_options(shape, radius, connectivity, length, angle, angles, exact)
    threads = _lyn_pkg._common(threads, None, None)
    # Fails here, not on the workers, for a bad dtype or option.
    try:
        _lyn.morphology(dilate, np.zeros((1,) * array.ndim, array.dtype), shape, options, None, 1, True, None, None)
    except TypeError as e:
        raise TypeError(str(e).replace("image:", "array:", 1)) from None
    if chunks is not None:
        array = array.rechunk(chunks)
    if array.size == 0:
        return array.copy()
    generic = bool(generic)
    fn = functools.partial(_block, dilate=dilate, shape=shape, options=options, threads=threads, generic=generic)
    name = ("lyn-dilate-" if dilate else "lyn-erode-") + tokenize(array.name, shape, options, threads, generic)
    return _overlap_graph(array, _depth(array, shape, options), fn, name)


_CHUNKS_DOC = """
    `chunks`: None computes each of the array's own chunks as a task; anything `dask.array.rechunk`
    takes ("auto", a tuple, a dict) first merges them into those blocks, which the result keeps.
    Fewer, larger blocks mean fewer tasks and fewer margin voxels computed twice, for more memory
    per task: worth it for chunks of a few MiB or less.
"""


def dilate(array, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
           threads=None, generic=False, chunks=None):
    return _morphology(True, array, shape, radius, connectivity, length, angle, angles, exact, threads, generic,
                       chunks)


def erode(array, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
          threads=None, generic=False, chunks=None):
    return _morphology(False, array, shape, radius, connectivity, length, angle, angles, exact, threads, generic,
                       chunks)


dilate.__doc__ = """Lazy `lyn.dilate` of a dask array: a dask array of the same dtype and shape, in the
    array's chunks unless `chunks` says otherwise.

    `threads` caps lyn's worker threads inside each block's task (default: lyn's default).""" + _CHUNKS_DOC
erode.__doc__ = """Lazy `lyn.erode` of a dask array: a dask array of the same dtype and shape, in the
    array's chunks unless `chunks` says otherwise.""" + _CHUNKS_DOC


# Measurement axes (plans, axis3, axis4) are the array's axes -3, -4, -5.
_MEASUREMENT_AXIS = {"plan": 0, "axis3": 1, "axis4": 2}


def _extrema_block(block, per, kept, out_dtype, threads, generic):
    ndim = block.ndim
    shape = [2] + [block.shape[a] if a in kept else 1 for a in range(ndim)]
    if not per:
        lo, hi = _lyn_pkg.extrema(block, threads=threads, generic=generic)
        return np.array([lo, hi], dtype=out_dtype).reshape(shape)
    parts = []
    for m in _lyn_pkg.extrema(block, per=per, threads=threads, generic=generic):
        # (plans, axis3, axis4) -> the block's (..., axis4, axis3, plans) axes; the axes it lacks have extent 1.
        m = np.transpose(m, (2, 1, 0))
        parts.append(m.reshape(m.shape[3 - min(ndim - 2, 3):]))
    return np.stack(parts).astype(out_dtype, copy=False).reshape(shape)


def extrema(array, per=None, *, threads=None, generic=False, compute=True):
    """`lyn.extrema` of a dask array: the same values, combined over its chunks.

    With `compute=False`, the two results stay lazy (dask arrays).
    """
    _check_array(array)
    mode = _lyn_pkg._range_mode(per)
    _lyn_pkg._common(threads, None, None)
    if array.size == 0:
        raise ValueError("array: is empty, it has no extrema")
    kind = np.dtype(array.dtype).kind
    if kind not in "uifb" or np.dtype(array.dtype).itemsize not in (1, 2, 4, 8) or array.dtype == np.float16:
        raise TypeError(f"array: dtype {array.dtype} is not served")
    per_names = tuple(name for name, bit in _lyn_pkg._AXES.items() if mode & bit)
    ndim = array.ndim
    kept = {ndim - 3 - _MEASUREMENT_AXIS[name] for name in per_names if ndim - 3 - _MEASUREMENT_AXIS[name] >= 0}
    reduced_chunks = tuple(c if a in kept else (1,) * len(c) for a, c in enumerate(array.chunks))
    out_dtype = np.uint64 if kind == "u" else np.int64 if kind in "ib" else np.float64
    stacked = array.map_blocks(_extrema_block, per=per_names, kept=kept, out_dtype=out_dtype, threads=threads,
                               generic=bool(generic),
                               chunks=((2,),) + reduced_chunks, new_axis=0, dtype=out_dtype,
                               meta=np.empty((0,) * (ndim + 1), out_dtype))
    axes = tuple(a for a in range(ndim) if a not in kept)
    if kind == "f":
        # Chunks holding only NaN give NaN: they must not hide the other chunks' values.
        lo, hi = da.nanmin(stacked[0], axis=axes), da.nanmax(stacked[1], axis=axes)
    else:
        lo, hi = stacked[0].min(axis=axes), stacked[1].max(axis=axes)
    if per is None:
        lo, hi = lo.reshape(()), hi.reshape(())
    else:
        lo, hi = _measurement(lo, ndim, kept), _measurement(hi, ndim, kept)
    if not compute:
        return lo, hi
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", RuntimeWarning)  # all-NaN elements: NaN is the answer
        lo, hi = da.compute(lo, hi)
    if per is None:
        integral = kind in "uib"
        return _lyn_pkg._number(lo[()], integral), _lyn_pkg._number(hi[()], integral)
    return np.ascontiguousarray(lo), np.ascontiguousarray(hi)


def _measurement(values, ndim, kept):
    """Kept array axes (axis4, axis3, plans, as the array orders them) -> the measurement's (plans, axis3, axis4)."""
    full = [1, 1, 1]
    src = []
    for m in range(3):
        a = ndim - 3 - m
        if a in kept:
            src.append(a)
            full[m] = values.shape[sorted(kept).index(a)]
    order = [sorted(kept).index(a) for a in src]
    return values.transpose(order).reshape(full)
