#!/usr/bin/env python3
"""Markdown tables of median times and ratios from lyn_bench's JSON output.

Usage: bench/report.py build/bench/lyn_bench.json > tables.md

Ratios are taken between medians of the same run and the same thread count, so a machine that
slows down between runs does not skew them.
"""
import json
import sys
from collections import defaultdict

# (group, type, case) -> threads -> implementation -> median milliseconds
times = defaultdict(lambda: defaultdict(dict))
# Same keys -> median CPUs used by other processes while timed (absent in older outputs).
others = defaultdict(lambda: defaultdict(dict))


def to_ms(value, unit):
    return value * {"ns": 1e-6, "us": 1e-3, "ms": 1.0, "s": 1e3}[unit]


def load(path):
    with open(path) as f:
        data = json.load(f)
    for b in data["benchmarks"]:
        if b.get("aggregate_name", "median") != "median" or b.get("error_occurred"):
            continue
        # <group>/<type>/<case>/<impl>/threads:<t>/real_time
        parts = b["run_name"].split("/")
        group, vtype, case, impl = parts[:4]
        threads = int(parts[4].split(":")[1])
        times[(group, vtype, case)][threads][impl] = to_ms(b["real_time"], b["time_unit"])
        if "others_cpu" in b:
            others[(group, vtype, case)][threads][impl] = b["others_cpu"]
    return data.get("context", {})


def fmt(v, digits=2):
    return "" if v is None else f"{v:.{digits}f}"


def ratio(a, b):
    return a / b if a is not None and b else None


def memcpy_key(group, vtype):
    return (group, vtype, "range" if group == "extrema" else "copy")


def memcpy_of(group, vtype, threads):
    return times.get(memcpy_key(group, vtype), {}).get(threads, {}).get("memcpy")


def busy(key, threads):
    """Largest foreign load of the plug-in and memcpy measurements that a ratio combines."""
    values = [others.get(key, {}).get(threads, {}).get("plugin"),
              others.get(memcpy_key(key[0], key[1]), {}).get(threads, {}).get("memcpy")]
    values = [v for v in values if v is not None]
    return max(values) if values else None


def busy_mark(value):
    # A tenth of a core taken by others is enough to move a 2-thread result.
    return "" if value is None else (f"{value:.2f}" + (" (busy)" if value > 0.1 else ""))


def table(group):
    rows = []
    keys = sorted((k for k in times if k[0] == group), key=lambda k: list(times).index(k))
    print("| type | case | threads | plug-in ms | memcpy ms | plug-in / memcpy | generic ms | plug-in / generic "
          "| others' CPUs |")
    print("|---|---|---:|---:|---:|---:|---:|---:|---:|")
    for key in keys:
        _, vtype, case = key
        for threads in sorted(times[key]):
            impls = times[key][threads]
            if "plugin" not in impls:
                continue
            p, g = impls.get("plugin"), impls.get("generic")
            m = memcpy_of(group, vtype, threads)
            print(f"| {vtype} | {case} | {threads} | {fmt(p, 3)} | {fmt(m, 3)} | {fmt(ratio(p, m))} | {fmt(g, 3)} "
                  f"| {fmt(ratio(p, g), 3)} | {busy_mark(busy(key, threads))} |")
            rows.append((vtype, case, threads, p, m))
    print()
    return rows


def targets():
    print("| target | case | plug-in / memcpy | limit | met | others' CPUs |")
    print("|---|---|---:|---:|---|---:|")
    checks = []
    for vtype in ("uint8", "float32", "float64"):
        checks.append(("extrema, 2 threads", "extrema", vtype, "range", 0.9))
    for vtype in ("uint8", "float32", "float64"):
        for shape in ("square", "cross"):
            checks.append(("2D 3x3 one pass, 2 threads", "morph2d", vtype, f"dilate-{shape}-x1", 1.3))
    for vtype in ("uint8", "float32", "float64"):
        checks.append(("3D 26-connected one pass, 2 threads", "morph3d", vtype, "dilate-26-x1", 1.3))
        for conn in ("6", "18"):
            checks.append((f"3D {conn}-connected one pass, 2 threads", "morph3d", vtype, f"dilate-{conn}-x1", 1.5))
    for label, group, vtype, case, limit in checks:
        p = times.get((group, vtype, case), {}).get(2, {}).get("plugin")
        r = ratio(p, memcpy_of(group, vtype, 2))
        met = "n/a" if r is None else ("yes" if r <= limit else "**no**")
        print(f"| {label} | {vtype} {case} | {fmt(r)} | {limit} | {met} | {busy_mark(busy((group, vtype, case), 2))} |")
    print()


def main():
    context = load(sys.argv[1])
    for key in ("date", "host_name", "num_cpus", "mhz_per_cpu", "load_avg", "lyn_plugin", "lyn_grain_sizes"):
        if key in context:
            print(f"- {key}: {context[key]}")
    print()
    for group in ("extrema", "morph2d", "morph3d"):
        print(f"### {group}\n")
        table(group)
    print("### targets\n")
    targets()


if __name__ == "__main__":
    main()
