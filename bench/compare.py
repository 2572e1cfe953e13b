"""Runs kernel_bench and prints its figures side by side. bench/compare calls it; needs the standard library only.

A benchmark is named SUBJECT/IMPLEMENTATION/ARGUMENTS. Those of the same subject and arguments share a line.
"""

import argparse
import collections
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

OURS = "oskernel"

# What must not cost more when more of it is alive: the time at the largest count, in times at the smallest.
GROWTH_LIMITS = {
    "buffer_100": 1.5,
    "buffer_600": 1.5,
    "buffer_1740": 1.5,
    "event_set_wait": 1.5,
    "link_alloc_free": 1.5,
    "link_alloc_free_grown": 1.5,
}
COUNTS = ("outstanding", "live", "links", "length", "timers", "keys")

# Left out of a quick run: what takes long to set up.
SLOW = r"keys:1000000|timer_.*:100000"


class Benchmark(collections.namedtuple("Benchmark", "subject implementation count size threads")):
    """What a benchmark's name says. count is the kind of argument ("outstanding"), size its value."""

    @staticmethod
    def parse(entry):
        subject, implementation, *arguments = entry["run_name"].split("/")
        count, size = "", 0
        for argument in arguments:
            key, _, value = argument.partition(":")
            if key not in ("real_time", "manual_time", "iterations", "threads", "repeats"):
                count, size = key, int(value)
        return Benchmark(subject, implementation, count, size, entry["threads"])

    def label(self):
        return self.subject.replace("_", " ") + (f", {self.threads} threads" if self.threads > 1 else "")


def run(program, repetitions, min_time, pattern):
    """Runs the benchmarks that match; returns {benchmark: [ns of each repetition]}, in order, and all results."""
    with tempfile.TemporaryDirectory() as scratch:
        out = os.path.join(scratch, "out.json")
        subprocess.run(
            [
                program,
                f"--benchmark_out={out}",
                "--benchmark_out_format=json",
                f"--benchmark_repetitions={repetitions}",
                f"--benchmark_min_time={min_time}",
                "--benchmark_enable_random_interleaving=true",
                f"--benchmark_filter={pattern}",
            ],
            check=True,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.PIPE,
            text=True,
        )
        if not os.path.exists(out) or os.path.getsize(out) == 0:
            return {}, None
        with open(out, encoding="utf-8") as file:
            results = json.load(file)
    times = collections.defaultdict(list)
    names = {}
    subjects = {}  # in the order in which the program registers them
    for entry in sorted(results["benchmarks"], key=lambda e: e["family_index"]):
        if entry["run_type"] != "iteration":
            continue
        benchmark = Benchmark.parse(entry)
        subjects.setdefault(benchmark.subject, len(subjects))
        times[benchmark].append(1e9 / entry["items_per_second"])
        names[benchmark] = entry["run_name"]
    results["names"] = names
    order = sorted(times, key=lambda b: (subjects[b.subject], b.threads, b.size))
    return {b: times[b] for b in order}, results


def format_ns(ns):
    if ns < 1000:
        return f"{ns:.1f} ns"
    if ns < 1e6:
        return f"{ns / 1000:.2f} us"
    return f"{ns / 1e6:.2f} ms"


def print_comparison(medians):
    lines = collections.defaultdict(dict)
    for b, ns in medians.items():
        lines[b._replace(implementation="")][b.implementation] = ns
    print("\nOne operation, and how many times as long it takes here as with each peer (below 1: faster here)\n")
    for line, by_implementation in lines.items():
        ours = by_implementation.get(OURS)
        if ours is None:
            continue
        cells = [
            f"{name} {format_ns(ns)}, x{ours / ns:.2f}" for name, ns in by_implementation.items() if name != OURS
        ]
        count = f"{line.size:>8,} {line.count}" if line.count else ""
        print(f"{line.label():34}{count:22}{format_ns(ours):>10}   " + "".join(f"{c:34}" for c in cells).rstrip())


def ends(medians):
    """Yields (benchmark at the smallest count, at the largest) wherever there are several."""
    families = collections.defaultdict(list)
    for b in medians:
        if b.count in COUNTS:
            families[b._replace(size=0)].append(b)
    for members in families.values():
        if len(members) > 1:
            yield min(members, key=lambda b: b.size), max(members, key=lambda b: b.size)


def measure_again(program, names, smallest, largest):
    """The growth of one benchmark, by the best of many repetitions: what else the machine does only adds time."""
    pattern = "^(" + "|".join(re.escape(names[b]) for b in (smallest, largest)) + ")$"
    times, _ = run(program, 15, 0.02, pattern)
    return min(times[largest]) / min(times[smallest])


def print_growth(medians, program, names):
    """Returns the number of limits exceeded."""
    print("\nGrowth: the time at the largest count, in times at the smallest\n")
    exceeded = 0
    peers = collections.defaultdict(list)
    for smallest, largest in ends(medians):
        if smallest.implementation != OURS:
            line = smallest._replace(implementation="", size=0)
            peers[line].append(f"{smallest.implementation} {medians[largest] / medians[smallest]:.2f}")
    for smallest, largest in ends(medians):
        if smallest.implementation != OURS:
            continue
        growth = medians[largest] / medians[smallest]
        limit = GROWTH_LIMITS.get(smallest.subject)
        verdict = ""
        if limit is not None:
            verdict = f"at most {limit}: pass"
            for _ in range(2):
                if growth <= limit:
                    break
                growth = min(growth, measure_again(program, names, smallest, largest))
            if growth > limit:
                verdict = f"at most {limit}: FAIL"
                exceeded += 1
        counts = f"{smallest.size:,} to {largest.size:,} {smallest.count}"
        others = ", ".join(peers[smallest._replace(implementation="", size=0)])
        print(f"{smallest.label():34}{counts:30}{growth:6.2f}   {verdict:20}{others}".rstrip())
    return exceeded


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--filter", default="")
    parser.add_argument("program")
    parser.add_argument("results")
    arguments = parser.parse_args()

    repetitions, min_time = (3, 0.004) if arguments.quick else (5, 0.02)
    began = time.monotonic()
    listed = subprocess.run(
        [arguments.program, "--benchmark_list_tests", f"--benchmark_filter={arguments.filter}"],
        check=True, stdout=subprocess.PIPE, text=True,
    ).stdout.split()
    names = [n for n in listed if "/" in n and not (arguments.quick and re.search(SLOW, n))]
    if not names:
        print(f"No benchmark's name matches '{arguments.filter}'.", file=sys.stderr)
        return 1
    print(f"Measuring {len(names)} benchmarks, {repetitions} times each ...", flush=True)
    pattern = "^(" + "|".join(re.escape(n) for n in names) + ")$"
    try:
        times, results = run(arguments.program, repetitions, min_time, pattern)
    except subprocess.CalledProcessError as error:
        print(error.stderr, file=sys.stderr)
        print(f"kernel_bench ended with {error.returncode}; its last words stand above.", file=sys.stderr)
        return 1
    names = results.pop("names")
    with open(arguments.results, "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)

    medians = {b: statistics.median(ns) for b, ns in times.items()}
    print_comparison(medians)
    exceeded = print_growth(medians, arguments.program, names)
    load = os.getloadavg()[0]
    print(f"\nTook {time.monotonic() - began:.0f} s on {os.cpu_count()} processors; load average {load:.1f}.", end=" ")
    print("Nothing grows beyond its limit." if exceeded == 0 else f"{exceeded} beyond the limit.")
    return 0 if exceeded == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
