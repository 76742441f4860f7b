#!/usr/bin/env python3
"""Runs every bench_* binary of a build folder and prints one table: ours, reference, ratio (target).

A benchmark binary names its runs GROUP/ours, GROUP/reference (and GROUP/check, a run that fails
when both do not compute the same). ours may carry a counter "target", the highest ratio wanted; a
group without a reference shows ours' rates instead (boots per second). Repetitions of all runs
of a binary are interleaved in random order and the medians of CPU time are compared (real time for
runs that measure it, such as other processes), so that load on the machine hits both sides alike.
"""
import json
import os
import subprocess
import sys
from pathlib import Path

REPETITIONS = os.environ.get("BENCH_REPETITIONS", "9")
MIN_TIME = os.environ.get("BENCH_MIN_TIME", "0.2")


def run(binary):
    out = subprocess.run([str(binary), "--benchmark_format=json", f"--benchmark_repetitions={REPETITIONS}",
                          f"--benchmark_min_time={MIN_TIME}", "--benchmark_enable_random_interleaving=true",
                          "--benchmark_report_aggregates_only=true"],
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    if out.returncode != 0:
        raise RuntimeError(f"{binary.name} exited with {out.returncode}")
    return json.loads(out.stdout)["benchmarks"]


def seconds(b, real):
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[b["time_unit"]]
    return b["real_time" if real else "cpu_time"] * scale


def show_time(s):
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("us", 1e-6)):
        if s >= scale:
            return f"{s / scale:.3g} {unit}"
    return f"{s / 1e-9:.3g} ns"


def main():
    build = Path(sys.argv[1] if len(sys.argv) > 1 else "build/default")
    binaries = sorted(build.glob("bench_*"))
    if not binaries:
        sys.exit(f"bench-table: no bench_* binaries in {build}")
    rows, failed = [], False
    for binary in binaries:
        medians, broken = {}, set()
        for b in run(binary):
            # run names: GROUP/SIDE, perhaps with /iterations:N or /real_time behind
            name = b.get("run_name", b["name"])
            group, side = (name.split("/") + [""])[:2]
            if b.get("error_occurred"):
                print(f"bench-table: {binary.name}: {name}: {b.get('error_message', 'failed')}", file=sys.stderr)
                broken.add(group)
            elif b.get("aggregate_name") == "median":
                medians[(group, side)] = b
        failed = failed or bool(broken)
        for (group, side), ours in sorted(medians.items()):
            if side != "ours" or group in broken:
                continue
            real = "/real_time" in ours["run_name"]
            ref = medians.get((group, "reference"))
            if ref is None:
                rates = [f"{ours[k]:.4g} {k.replace('_per_', '/').replace('_', ' ')}"
                         for k in sorted(ours, key=lambda k: ("cpu" in k, k))
                         if "_per_" in k and k.endswith("second") and k != "bytes_per_second"]
                rows.append((group, ", ".join(rates) or show_time(seconds(ours, real)), "-", "-"))
                continue
            ratio = seconds(ours, real) / seconds(ref, real)
            target = ours.get("target")
            mark = f" (<= {target:g})" + ("" if ratio <= target else " MISSED") if target else ""
            rows.append((group, show_time(seconds(ours, real)), show_time(seconds(ref, real)), f"{ratio:.2f}{mark}"))
    head = ("benchmark", "ours", "reference", "ratio (target)")
    widths = [max(len(r[i]) for r in rows + [head]) for i in range(4)]
    for r in [head] + rows:
        print("  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
    print(f"(medians of {REPETITIONS} interleaved repetitions; CPU time, real time for boot)")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
