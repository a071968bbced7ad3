#!/usr/bin/python3
"""Hostile end-to-end tests of the lyn tool: signals in every phase, files that lie about their
size, outputs that change under us, odd names and folders, exact extrema, strict numbers and JSON.
Usage: test_reliability.py PATH/TO/lyn"""
import json, os, resource, shutil, signal, struct, subprocess, sys, tempfile, time
import numpy as np

LYN = os.path.realpath(sys.argv[1])
results = []


def case(name):
    def wrap(fn):
        results.append((name, fn))
        return fn
    return wrap


def run(*args, env=None, umask=None, timeout=120):
    """Runs lyn; returns (status, stdout, stderr, seconds, max RSS in MiB)."""
    e = dict(os.environ, **(env or {}))
    t0 = time.monotonic()
    p = subprocess.Popen([LYN, *map(str, args)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=e,
                         preexec_fn=(lambda: os.umask(umask)) if umask is not None else None, text=True)
    out, err = p.communicate(timeout=timeout)
    return p.returncode, out, err, time.monotonic() - t0


def start_paused(phase, *args, seconds=30):
    """Starts lyn paused at PHASE; returns the process once it says it is there."""
    e = dict(os.environ, LYN_TEST_PAUSE_AT=f"{phase}:{seconds}")
    p = subprocess.Popen([LYN, *map(str, args)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=e, text=True)
    line = p.stderr.readline()
    assert "test pause at " + phase in line, f"lyn did not pause at {phase}: {line!r}"
    return p


def leftovers(folder="."):
    return [f for f in os.listdir(folder) if f.startswith(".lyn-") or ".partial-" in f]


def check(cond, what):
    if not cond:
        raise AssertionError(what)


# --- signals ---------------------------------------------------------------------------------
@case("a signal in every phase (load, compute, write, radius-0 copy) exits 130 and leaves nothing")
def _():
    np.save("sig.npy", np.arange(40 * 50 * 60, dtype=np.float32).reshape(40, 50, 60))
    for phase, radius in (("load", 1), ("compute", 1), ("write", 1), ("copy", 0), ("write", 0)):
        for sig in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            for out in ("sig-out.npy", "sig-out.tif"):
                p = start_paused(phase, "dilate", "sig.npy", out, "--shape", "cube", "--radius", radius)
                p.send_signal(sig)
                p.communicate(timeout=30)
                where = f"{phase} radius {radius} {out} signal {sig}"
                check(p.returncode == 130, f"{where}: exit {p.returncode}")
                check(not os.path.exists(out), f"{where}: {out} exists")
                check(not leftovers(), f"{where}: left {leftovers()}")


@case("a signal before the computation starts stops it at once")
def _():
    np.save("long.npy", np.zeros((64, 256, 256), np.float32))
    p = start_paused("compute", "dilate", "long.npy", "long-out.npy", "--shape", "cube", "--radius", 400, "--generic")
    t0 = time.monotonic()
    p.send_signal(signal.SIGINT)
    p.communicate(timeout=300)
    took = time.monotonic() - t0
    check(p.returncode == 130 and not os.path.exists("long-out.npy"), f"exit {p.returncode}")
    check(took < 5, f"took {took:.1f} s to stop")


# --- inputs that lie -----------------------------------------------------------------------------
def npy_bytes(descr, shape, data=b"", fortran="False"):
    d = "{'descr': '%s', 'fortran_order': %s, 'shape': %s, }" % (descr, fortran, repr(tuple(shape)))
    d += " " * (63 - (10 + len(d)) % 64) + "\n"
    return b"\x93NUMPY\x01\x00" + struct.pack("<H", len(d)) + d.encode() + data


def tiff_bytes(pages, width, height, bits=8, tile=None, data_len=None, bad_offset_page=None, compression=1):
    """A little-endian TIFF of PAGES grey pages (uncompressed unless COMPRESSION says otherwise) whose
    data is only DATA_LEN bytes long (default: complete); strips, or tiles of TILE x TILE."""
    page_bytes = width * height * bits // 8
    data_len = page_bytes if data_len is None else data_len
    out = bytearray(b"II*\x00\x00\x00\x00\x00")
    ifd_offsets = []
    for page in range(pages):
        data_at = len(out)
        out += bytes(data_len)
        if tile:
            n = ((width + tile - 1) // tile) * ((height + tile - 1) // tile)
            chunk = tile * tile * bits // 8
        else:
            n, chunk = 1, page_bytes
        offsets = [data_at + i * chunk for i in range(n)]
        if bad_offset_page == page:
            offsets = [o + 10**6 for o in offsets]
        arrays_at = len(out)
        out += struct.pack("<%dI" % n, *offsets) + struct.pack("<%dI" % n, *[chunk] * n)
        tags = [(256, 4, 1, width), (257, 4, 1, height), (258, 3, 1, bits), (259, 3, 1, compression), (262, 3, 1, 1),
                (277, 3, 1, 1), (339, 3, 1, 1)]
        if tile:
            tags += [(322, 3, 1, tile), (323, 3, 1, tile),
                     (324, 4, n, arrays_at if n > 1 else offsets[0]), (325, 4, n, arrays_at + 4 * n if n > 1 else chunk)]
        else:
            # A compressed strip holds what it holds; an uncompressed one claims the whole page.
            tags += [(273, 4, 1, offsets[0]), (278, 4, 1, height), (279, 4, 1, chunk if compression == 1 else data_len)]
        tags.sort()
        if len(out) % 2:
            out += b"\x00"
        ifd_offsets.append(len(out))
        out += struct.pack("<H", len(tags))
        for t, typ, cnt, val in tags:
            out += struct.pack("<HHI", t, typ, cnt) + (struct.pack("<HH", val, 0) if typ == 3 else struct.pack("<I", val))
        out += b"\x00\x00\x00\x00"
    struct.pack_into("<I", out, 4, ifd_offsets[0])
    for a, b in zip(ifd_offsets, ifd_offsets[1:]):
        n = struct.unpack_from("<H", out, a)[0]
        struct.pack_into("<I", out, a + 2 + 12 * n, b)
    return bytes(out)


def max_rss_mib_of(args):
    """Exit status, stderr and peak memory (MiB) of one lyn run."""
    p = subprocess.Popen([LYN, *args], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    err = p.stderr.read()
    _, status, usage = os.wait4(p.pid, 0)
    p.returncode = os.waitstatus_to_exitcode(status)
    return p.returncode, err, usage.ru_maxrss / 1024


@case("a tiny file claiming gigabytes is refused before anything is allocated")
def _():
    with open("liar.npy", "wb") as f:
        f.write(npy_bytes("<f8", (32768, 32768), bytes(100)))
    with open("liar.tif", "wb") as f:
        f.write(tiff_bytes(12, 16384, 16384, 8, data_len=16))
    with open("absurd.npy", "wb") as f:
        f.write(npy_bytes("|u1", (1, 4294967296), bytes(20)))
    with open("fax.tif", "wb") as f:  # 8-bit pages under a codec for 1-bit fax: nothing bounds the claim
        f.write(tiff_bytes(1, 32768, 65535, 8, data_len=400, compression=4))
    for name, expect in (("liar.npy", "needs 8589934592 bytes"), ("liar.tif", "is truncated"),
                         ("absurd.npy", "shorter than its shape"), ("fax.tif", "cannot be decoded")):
        rc, err, rss = max_rss_mib_of(["dilate", name, "x.npy", "--shape", "square"])
        check(rc == 2 and expect in err and name in err, f"{name}: exit {rc}, {err!r}")
        check(rss < 300, f"{name}: peak memory {rss:.0f} MiB")
        check("not enough memory" not in err, f"{name}: {err!r}")


@case("unreadable inputs are named with what is wrong")
def _():
    os.mkdir("folder.npy")
    with open("strfortran.npy", "wb") as f:
        f.write(npy_bytes("|u1", (2, 3), bytes(6), fortran="'True'"))
    with open("tiled.tif", "wb") as f:
        f.write(tiff_bytes(1, 64, 64, 8, tile=16, data_len=16 * 16 * 3))
    with open("pages.tif", "wb") as f:
        f.write(tiff_bytes(3, 8, 8, 8, bad_offset_page=2))
    np.save("upper.npy", np.arange(12, dtype=np.uint8).reshape(3, 4))
    os.rename("upper.npy", "UPPER.NPY")
    # Found by the fuzzer: libtiff opens its first directory but counts none.
    shutil.copy(os.path.join(os.path.dirname(os.path.abspath(__file__)), "data", "tiff-no-pages.tif"), "nopages.tif")
    for args, expect in ((["folder.npy"], "is a directory"), (["strfortran.npy"], "fortran_order"),
                         (["nopages.tif"], "has no readable page"),
                         (["tiled.tif"], "is truncated"), (["pages.tif"], "page 2 of 3")):
        rc, _, err, _ = run("extrema", *args)
        check(rc == 2 and expect in err, f"{args}: exit {rc}, {err!r}")
    rc, out, err, _ = run("extrema", "UPPER.NPY", "--json")
    check(rc == 0 and json.loads(out)["max"] == [11], f"UPPER.NPY: {rc} {err!r}")
    rc, _, err, _ = run("dilate", "UPPER.NPY", "UP.TIF", "--shape", "square", "--radius", 0)
    rc2, out, err2, _ = run("extrema", "UP.TIF", "--json")
    check(rc == 0 and rc2 == 0 and json.loads(out)["min"] == [0], f".TIF: {err!r} {err2!r}")


# --- outputs ---------------------------------------------------------------------------------
@case("a file created at OUTPUT while computing is not replaced; the result is kept under a printed name")
def _():
    a = np.arange(30 * 40, dtype=np.uint8).reshape(30, 40)
    np.save("race.npy", a)
    p = start_paused("compute", "dilate", "race.npy", "race-out.npy", "--shape", "square", seconds=2)
    with open("race-out.npy", "w") as f:
        f.write("someone else's")
    _, err = p.communicate(timeout=60)
    check(p.returncode == 2, f"exit {p.returncode}: {err!r}")
    check(open("race-out.npy").read() == "someone else's", "OUTPUT was replaced")
    kept = err.split("kept as ")[-1].strip()
    check(os.path.exists(kept) and np.load(kept).shape == a.shape, f"kept result missing: {err!r}")
    os.remove(kept)
    os.remove("race-out.npy")


@case("output modes follow the umask; --force keeps the replaced file's mode")
def _():
    np.save("m.npy", np.zeros((5, 6), np.uint8))
    for mask, want in ((0o022, 0o644), (0o077, 0o600), (0o002, 0o664)):
        for out in ("m-out.npy", "m-out.tif"):
            rc, _, err, _ = run("erode", "m.npy", out, "--shape", "square", umask=mask)
            mode = os.stat(out).st_mode & 0o777
            check(rc == 0 and mode == want, f"umask {mask:o} {out}: mode {mode:o} {err!r}")
            os.remove(out)
    np.save("keep.npy", np.zeros((2, 2), np.uint8))
    os.chmod("keep.npy", 0o640)
    rc, _, err, _ = run("erode", "m.npy", "keep.npy", "--shape", "square", "--force", umask=0)
    check(rc == 0 and os.stat("keep.npy").st_mode & 0o777 == 0o640, f"--force: {err!r}")


@case("output names up to the folder's limit work")
def _():
    np.save("n.npy", np.zeros((5, 6), np.uint8))
    for n in (240, 255):
        name = "n" * (n - 4) + ".npy"
        rc, _, err, _ = run("dilate", "n.npy", name, "--shape", "square")
        check(rc == 0 and os.path.exists(name), f"{n} bytes: {err!r}")
        os.remove(name)
    rc, _, err, _ = run("dilate", "n.npy", "n" * 300 + ".npy", "--shape", "square")
    check(rc == 2 and "too long" in err, f"300 bytes: {rc} {err!r}")


@case("outputs that cannot be written are refused before computing (exit 2)")
def _():
    np.save("p.npy", np.zeros((5, 6), np.uint8))
    np.save("p4.npy", np.zeros((2, 2, 5, 6), np.uint8))
    open("plain", "w").close()
    cases = [("p.npy", "missing/out.npy", "missing"), ("p.npy", "plain/out.npy", "not a folder"),
             ("p.npy", "p.npy.d", "unsupported output format"), ("p4.npy", "four.tif", "TIFF holds"),
             ("p.npy", ".", "unsupported output format")]
    if os.geteuid() != 0:  # root writes anywhere
        os.mkdir("ro")
        os.chmod("ro", 0o555)
        cases.append(("p.npy", "ro/out.npy", "ro"))
    for src, out, expect in cases:
        rc, _, err, took = run("dilate", src, out, "--shape", "cube" if src == "p4.npy" else "square",
                               env={"LYN_TEST_PAUSE_AT": "compute:20"})
        check(rc == 2 and expect in err and took < 10, f"{out}: exit {rc} after {took:.1f} s, {err!r}")
        check("test pause" not in err, f"{out}: reached the computation")
    check(not leftovers(), f"left {leftovers()}")


@case("disk full while writing says so and names the file")
def _():
    if os.geteuid() != 0 or subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", os.path.abspath(
            os.makedirs("full", exist_ok=True) or "full")], capture_output=True).returncode != 0:
        print("# skipped: needs root to mount a small tmpfs")
        return
    try:
        np.save("f.npy", np.zeros((40, 100, 100), np.uint8))
        for out in ("full/f.npy", "full/f.tif"):
            rc, _, err, _ = run("dilate", "f.npy", out, "--shape", "cube", "--radius", 0)
            check(rc != 0 and "No space left on device" in err and out in err, f"{out}: {rc} {err!r}")
            check(not os.path.exists(out) and not leftovers("full"), f"{out}: left files")
    finally:
        subprocess.run(["umount", os.path.abspath("full")])


# --- extrema, JSON, numbers ------------------------------------------------------------------
def strict_json(text):
    def refuse(name):
        raise ValueError("non-standard JSON constant " + name)
    return json.loads(text, parse_constant=refuse)


@case("extrema reports infinities, no values and exact 64-bit integers, in strict JSON")
def _():
    big = 2**53 + 1
    cases = [
        (np.full((4, 5), np.inf, np.float64), ["Infinity"], ["Infinity"]),
        (np.full((4, 5), -np.inf, np.float32), ["-Infinity"], ["-Infinity"]),
        (np.full((4, 5), np.nan, np.float32), [None], [None]),
        (np.zeros((0, 5), np.float32), [None], [None]),
        (np.array([[big, -big], [3, 4]], np.int64), [-big], [big]),
        (np.array([[2**64 - 1, 5]], np.uint64), [5], [2**64 - 1]),
        (np.array([[0.1, 2.5]], np.float64), [0.1], [2.5]),
    ]
    for i, (a, mn, mx) in enumerate(cases):
        np.save(f"e{i}.npy", a)
        for extra in ([], ["--generic"]):
            rc, out, err, _ = run("extrema", f"e{i}.npy", "--json", *extra)
            check(rc == 0, f"{a.dtype} {a.shape}: exit {rc} {err!r}")
            got = strict_json(out)
            check(got["min"] == mn and got["max"] == mx, f"{a.dtype} {a.shape} {extra}: {out!r}")
            if a.dtype.kind in "iu":
                check(str(mx[0]) in out and "e+" not in out, f"{a.dtype}: not exact: {out!r}")
    # Per plan: a NaN-only plan between others.
    a = np.arange(3 * 4 * 5, dtype=np.float32).reshape(3, 4, 5)
    a[1] = np.nan
    np.save("planes.npy", a)
    rc, out, err, _ = run("extrema", "planes.npy", "--per", "plan", "--json")
    got = strict_json(out)
    check(rc == 0 and got["min"] == [0, None, 40] and got["max"] == [19, None, 59], out)
    rc, out, _, _ = run("extrema", "e2.npy")
    check(rc == 0 and "min none" in out and "no values" in out, out)


@case("numbers are decimal: 010 is ten, 0x10 and 1e3 are refused")
def _():
    a = np.zeros((30, 30), np.uint8)
    a[15, 15] = 9
    np.save("num.npy", a)
    rc, _, err, _ = run("dilate", "num.npy", "r10.npy", "--shape", "square", "--radius", "010")
    d = np.load("r10.npy") if rc == 0 else None
    check(rc == 0 and d is not None and (d == 9).sum() == 21 * 21, f"--radius 010: {rc} {err!r}")
    for opt, val in (("--radius", "0x10"), ("--radius", "1e1"), ("--threads", "0x2"), ("--threads", "+2"),
                     ("--memory-budget", "1e3"), ("--memory-budget", "0x10M"), ("--radius", " 1")):
        rc, _, err, _ = run("dilate", "num.npy", "bad.npy", "--shape", "square", opt, val)
        check(rc == 2 and opt in err and not os.path.exists("bad.npy"), f"{opt} {val}: exit {rc} {err!r}")
    rc, _, err, _ = run("dilate", "num.npy", "mb.npy", "--shape", "square", "--memory-budget", "512M")
    check(rc == 0, f"--memory-budget 512M: {err!r}")


@case("--threads above the core count is quiet")
def _():
    np.save("t.npy", np.zeros((20, 30, 40), np.float32))
    rc, out, err, _ = run("dilate", "t.npy", "t-out.npy", "--shape", "cube", "--threads", 64)
    check(rc == 0 and err == "", f"exit {rc}, stderr {err!r}")


@case("demo validates its options before writing anything")
def _():
    open("demo-file", "w").close()
    for args, expect in ((["--out", "demo-file"], "--out"),
                         (["--size", 100000, "--out", "d2"], "--size")):
        rc, _, err, _ = run("demo", *args)
        check(rc == 2 and expect in err, f"{args}: exit {rc} {err!r}")
    check(not os.path.exists("d2"), "demo wrote before failing")
    rc, out, err, _ = run("demo", "--size", 2, "--out", "d3")
    check(rc == 0, f"--size 2: {rc} {err!r}")


@case("a library that registers no runner is not taken for the plug-in")
def _():
    rc, out, err, _ = run("info", env={"LYN_PLUGIN": "libm.so.6"})
    check(rc == 0 and "not a lyn plug-in" in out and "plug-in: loaded" not in out, out + err)


def main():
    work = tempfile.mkdtemp(prefix="lyn-reliability-")
    os.chdir(work)
    failed = 0
    for name, fn in results:
        try:
            fn()
            print(f"ok - {name}")
        except Exception as e:  # noqa: BLE001 - a test result, reported
            failed += 1
            print(f"not ok - {name}\n#   {e}")
    print(f"{len(results) - failed} passed, {failed} failed")
    subprocess.run(["rm", "-rf", work])
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
