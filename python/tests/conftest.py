import os
import shutil
import subprocess

import numpy as np
import pytest

import lyn


@pytest.fixture(scope="session")
def tool():
    """Runs the command-line tool: tool("dilate", "a.npy", "b.npy", "--shape", "cube")."""
    path = os.environ.get("LYN_TOOL") or shutil.which("lyn")
    if not path:
        pytest.skip("the lyn tool is not available (set LYN_TOOL)")

    def run(*args):
        r = subprocess.run([path, *map(str, args), "--quiet"], capture_output=True, text=True)
        if r.returncode != 0:
            raise AssertionError(f"lyn {' '.join(map(str, args))}: exit {r.returncode}: {r.stderr}")
        return r.stdout

    return run


def same_bits(a, b):
    return a.dtype == b.dtype and a.shape == b.shape and a.tobytes() == b.tobytes()


DTYPES = [np.uint8, np.uint16, np.uint32, np.uint64, np.int8, np.int16, np.int32, np.int64, np.float32, np.float64]


def random_image(shape, dtype, seed=0, specials=True):
    """Values spread over the type; for floats also NaN, -0.0, +0.0 and infinities."""
    rng = np.random.default_rng(seed)
    dtype = np.dtype(dtype)
    if dtype.kind == "f":
        a = (rng.standard_normal(shape) * 100).astype(dtype)
        if specials:
            flat = a.reshape(-1)
            idx = rng.choice(flat.size, size=min(flat.size, 8), replace=False)
            flat[idx] = np.array([np.nan, -0.0, 0.0, np.inf, -np.inf, np.nan, -0.0, 0.0], dtype)[: idx.size]
        return a
    if dtype.kind == "b":
        return rng.integers(0, 2, size=shape).astype(bool)
    info = np.iinfo(dtype)
    return rng.integers(info.min, info.max, size=shape, endpoint=True, dtype=dtype)
