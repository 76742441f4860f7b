#!/usr/bin/env python3
"""Runs every bench_* binary of a build folder and prints one table: ours, reference, ratio (target).

A benchmark binary names its runs GROUP/ours, GROUP/reference (and GROUP/check, a run that fails
when both do not compute the same). ours may carry a counter "target", the highest ratio wanted; a
group without a reference shows ours' counters instead (boots per second). Repetitions of all runs
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
        medians, errors = {}, []
        for b in run(binary):
            name = b.get("run_name", b["name"])
            if b.get("error_occurred"):
                errors.append(f"{name}: {b.get('error_message', 'failed')}")
            elif b.get("aggregate_name") == "median":
                medians[name] = b
        for e in sorted(set(errors)):
            print(f"bench-table: {binary.name}: {e}", file=sys.stderr)
            failed = True
        for name in sorted(medians):
            group, _, side = name.partition("/")
            if side != "ours" or f"{group}/check" in [e.split(":")[0] for e in errors]:
                continue
            ours = medians[name]
            real = ours.get("real_time") and "/real_time" in ours.get("name", "")
            ref = medians.get(f"{group}/reference")
            if ref is None:
                counters = [f"{v:.4g} {k.replace('_', ' ')}" for k, v in ours.items()
                            if isinstance(v, float) and k.endswith("per_second") and k != "bytes_per_second"]
                rows.append((group, ", ".join(counters) or show_time(seconds(ours, True)), "-", "-"))
                continue
            ratio = seconds(ours, real) / seconds(ref, real)
            target = ours.get("target")
            mark = ""
            if target:
                mark = f" (<= {target:g})" + ("" if ratio <= target else " MISSED")
            rows.append((group, show_time(seconds(ours, real)), show_time(seconds(ref, real)), f"{ratio:.2f}{mark}"))
    head = ("benchmark", "ours", "reference", "ratio (target)")
    widths = [max(len(r[i]) for r in rows + [head]) for i in range(4)]
    for r in [head] + rows:
        print("  ".join(c.ljust(w) for c, w in zip(r, widths)).rstrip())
    print(f"(medians of {REPETITIONS} interleaved repetitions; CPU time, real time for boot)")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
