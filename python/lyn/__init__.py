"""lyn: fast grey-level morphology and intensity extrema on NumPy images and volumes.

Images are NumPy arrays whose last axis is the column axis: (rows, cols) for a 2D image,
(plans, rows, cols) for a volume, up to (axis4, axis3, plans, rows, cols). The computation
releases the GIL; Ctrl-C cancels it. ``lyn.dask`` runs the same operations over dask arrays.
"""
import numbers

from . import _lyn
from ._lyn import Cancelled, ComputationError, Error, RuleError

__all__ = ["dilate", "erode", "opening", "closing", "gradient", "tophat", "blackhat", "extrema", "info", "shapes", "empty", "empty_like", "Error", "ComputationError", "RuleError", "Cancelled"]
__version__ = "0.1.0"

_AXES = {"plan": 1, "axis4": 2, "axis3": 4}


def _integer(name, value, minimum):
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise ValueError(f"{name}: expected an integer, got {value!r}")
    value = int(value)
    if value < minimum:
        raise ValueError(f"{name}: must be at least {minimum}, got {value}")
    return value


def _real(name, value):
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        raise ValueError(f"{name}: expected a number of degrees, got {value!r}")
    return float(value)


def shapes():
    """Every shape: name -> (dimensions, options taken, options required, summary)."""
    return _lyn.shapes()


def _shape_options(shape, radius, connectivity, length, angle, angles, exact):
    """The options the caller gave, as plain Python values; the host's shape table checks the rest
    (which options the shape takes, which it requires, their ranges)."""
    if not isinstance(shape, str):
        raise ValueError(f"shape: expected a shape name, got {shape!r}")
    options = {}
    if radius is not None:
        options["radius"] = _integer("radius", radius, 0)
    if connectivity is not None:
        options["connectivity"] = _integer("connectivity", connectivity, 0)
    if length is not None:
        options["length"] = _integer("length", length, 0)
    if angle is not None:
        options["angle"] = _real("angle", angle)
    if angles is not None:
        try:
            a1, a2 = angles
        except (TypeError, ValueError):
            raise ValueError(f"angles: expected two numbers (azimuth, elevation), got {angles!r}") from None
        options["angles"] = (_real("angles", a1), _real("angles", a2))
    if exact is not None:
        if not isinstance(exact, bool):
            raise ValueError(f"exact: expected True or False, got {exact!r}")
        if exact:
            options["exact"] = True
    return options


def _common(threads, progress, cancel):
    if threads is None:
        threads = 0
    else:
        threads = _integer("threads", threads, 1)
    if progress is not None and not callable(progress):
        raise ValueError(f"progress: expected a callable taking a fraction, got {progress!r}")
    if cancel is not None and not callable(getattr(cancel, "is_set", None)):
        raise ValueError(f"cancel: expected an object with is_set() such as threading.Event, got {cancel!r}")
    return threads


def _morphology(dilate, image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                progress, cancel):
    options = _shape_options(shape, radius, connectivity, length, angle, angles, exact)
    threads = _common(threads, progress, cancel)
    return _lyn.morphology(dilate, image, shape, options, out, threads, bool(generic), progress, cancel)


_MORPHOLOGY_DOC = """{what} of `image` by a structuring element.

    shape: "square", "cube", "disk", "ball", "line", "disk3d", "line3d"; see `lyn.shapes()` for the
        options each takes. A 2D shape applies plan by plan to a volume; a 3D shape sees a 2D
        image as a volume of one plan.
    radius, connectivity, length, angle (degrees), angles (azimuth, elevation in degrees), exact:
        the shape's options, as on the command line.
    out: a C-contiguous array of the image's dtype and shape to write into (may be `image`
        itself); returned. Without it a new array is returned.
    threads: at most this many worker threads. generic: bypass the plug-in.
    progress: called (on this thread) with fractions increasing to 1.
    cancel: a threading.Event; setting it stops the computation with lyn.Cancelled.
    Outside the image a {what_lower} sees the type's {border} value.
"""


def dilate(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
           out=None, threads=None, generic=False, progress=None, cancel=None):
    return _morphology(True, image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                       progress, cancel)


def erode(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
          out=None, threads=None, generic=False, progress=None, cancel=None):
    return _morphology(False, image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                       progress, cancel)


dilate.__doc__ = _MORPHOLOGY_DOC.format(what="Grey-level dilation", what_lower="dilation", border="lowest")
erode.__doc__ = _MORPHOLOGY_DOC.format(what="Grey-level erosion", what_lower="erosion", border="highest")


def _composite(operation, image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
               progress, cancel):
    options = _shape_options(shape, radius, connectivity, length, angle, angles, exact)
    threads = _common(threads, progress, cancel)
    return _lyn.composite(operation, image, shape, options, out, threads, bool(generic), progress, cancel)


_COMPOSITE_DOC = """{what} of `image` by a structuring element: {definition}

    Integer differences saturate at the type's range; float differences follow IEEE. The shape,
    its options and the other arguments are those of `lyn.dilate`. {memory}
"""


def opening(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
            out=None, threads=None, generic=False, progress=None, cancel=None):
    return _composite("open", image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                      progress, cancel)


def closing(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
            out=None, threads=None, generic=False, progress=None, cancel=None):
    return _composite("close", image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                      progress, cancel)


def gradient(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
             out=None, threads=None, generic=False, progress=None, cancel=None):
    return _composite("gradient", image, shape, radius, connectivity, length, angle, angles, exact, out, threads,
                      generic, progress, cancel)


def tophat(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
           out=None, threads=None, generic=False, progress=None, cancel=None):
    return _composite("tophat", image, shape, radius, connectivity, length, angle, angles, exact, out, threads, generic,
                      progress, cancel)


def blackhat(image, shape, *, radius=None, connectivity=None, length=None, angle=None, angles=None, exact=None,
             out=None, threads=None, generic=False, progress=None, cancel=None):
    return _composite("blackhat", image, shape, radius, connectivity, length, angle, angles, exact, out, threads,
                      generic, progress, cancel)


_NO_COPY = "No intermediate image besides `out`."
_ONE_COPY = "Holds one intermediate image the size of `image`."
_IN_PLACE_COPY = "Holds one intermediate image the size of `image` when `out` is `image`."
opening.__doc__ = _COMPOSITE_DOC.format(
    what="Opening", definition="an erosion, then a dilation by the mirrored shape (every offset negated).",
    memory=_NO_COPY)
closing.__doc__ = _COMPOSITE_DOC.format(
    what="Closing", definition="a dilation, then an erosion by the mirrored shape (every offset negated).",
    memory=_NO_COPY)
gradient.__doc__ = _COMPOSITE_DOC.format(what="Morphological gradient", definition="the dilation minus the erosion.",
                                         memory=_ONE_COPY)
tophat.__doc__ = _COMPOSITE_DOC.format(what="White top-hat", definition="`image` minus its opening.",
                                       memory=_IN_PLACE_COPY)
blackhat.__doc__ = _COMPOSITE_DOC.format(what="Black top-hat", definition="the closing minus `image`.",
                                         memory=_IN_PLACE_COPY)


def _range_mode(per):
    if per is None:
        return 0
    if isinstance(per, str):
        per = (per,)
    mode = 0
    for axis in per:
        if axis not in _AXES:
            raise ValueError(f"per: unknown axis {axis!r} (use plan, axis3, axis4)")
        mode |= _AXES[axis]
    return mode


def _number(value, integral):
    """A NumPy scalar as a Python number: int64 and uint64 values are converted exactly."""
    return int(value) if integral else float(value)


def extrema(image, per=None, *, threads=None, generic=False, progress=None, cancel=None):
    """Smallest and largest value of `image`, exactly.

    Without `per`, two Python numbers: ints for integer images (64-bit values included, exactly),
    floats otherwise (infinities when they are the extremes). With `per`, a subset of ("plan",
    "axis3", "axis4"), two arrays of the measurement's shape (plans, axis3, axis4), each axis not
    named being of extent 1: uint64 for unsigned images, int64 for other integer images, float64
    otherwise. NaN voxels are ignored; an element holding only NaN gives NaN. An empty image raises
    ValueError.
    """
    import numpy as np

    mode = _range_mode(per)
    threads = _common(threads, progress, cancel)
    if not isinstance(image, np.ndarray):
        raise TypeError(f"image: expected a numpy.ndarray, not {type(image).__name__}")
    lo, hi = _lyn.extrema(image, mode, threads, bool(generic), progress, cancel)
    if per is None:
        integral = image.dtype.kind in "uib"
        return _number(lo.flat[0], integral), _number(hi.flat[0], integral)
    # The module gives (axis4, axis3, plans) in C order, i.e. the measurement's order, plans fastest.
    return np.ascontiguousarray(lo.transpose()), np.ascontiguousarray(hi.transpose())


def empty(shape, dtype):
    """An uninitialised C-contiguous array for `out=`, its data aligned for the fastest writes.

    Arrays from numpy.empty work too; lyn's own outputs are allocated this way.
    """
    import numpy as np

    if isinstance(shape, numbers.Integral):
        shape = (shape,)
    return _lyn.empty(np.dtype(dtype), [int(n) for n in shape])


def empty_like(image):
    """`lyn.empty` of the image's shape and dtype (in native byte order)."""
    import numpy as np

    image = np.asarray(image)
    return empty(image.shape, image.dtype.newbyteorder("="))


def info():
    """Processor features, whether the plug-in was loaded and from where, runners per algorithm."""
    return _lyn.info()
