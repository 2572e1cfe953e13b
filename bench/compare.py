"""Runs kernel_bench, network_bench and dns_bench and prints their figures side by side. bench/compare calls it; needs
the standard library only.

A benchmark of the kernel or of DNS is named SUBJECT/IMPLEMENTATION/ARGUMENTS. Those of the same subject and arguments
share a line. A row of the network is named SUBJECT/ARGUMENTS, and every server is measured for it.
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

# What the network is to reach: with so many connections at least as many messages per second as this peer, and less
# memory than this for a connection.
AIM_PEER = "libuv"
AIM_CONNECTIONS = 50
AIM_BYTES = 2048
DISTURBED = 0.1  # of the processors, taken by other programs
# Over TLS the aim is the raw loop: so much of its messages of this size, and of its handshakes.
TLS_PEER = "epoll"
TLS_SHARE = 0.9
TLS_BYTES = 16384
TLS_ECHO = "tls_echo"
HANDSHAKE = "tls_handshake"
CHURN = "connect_echo_close"
MEMORY = "memory_per_connection"

# Answers decoded per second, in times of the faster peer's.
DNS_AIM = 2


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


def matching(program, arguments):
    """The names of the benchmarks that are to be run."""
    listed = subprocess.run(
        [program, "--benchmark_list_tests", f"--benchmark_filter={arguments.filter}"],
        check=True, stdout=subprocess.PIPE, text=True,
    ).stdout.split()
    return [n for n in listed if "/" in n and not (arguments.quick and re.search(SLOW, n))]


def measure(program, names, what, repetitions, min_time):
    """What run() returns for these names; None, with the program's words, when it fails."""
    print(f"\nMeasuring {len(names)} benchmarks of {what}, {repetitions} times each ...", flush=True)
    # The program's expressions know no escaped hyphen.
    pattern = "^(" + "|".join(re.escape(n).replace(r"\-", "-") for n in names) + ")$"
    try:
        return run(program, repetitions, min_time, pattern)
    except subprocess.CalledProcessError as error:
        print(error.stderr, file=sys.stderr)
        print(f"{os.path.basename(program)} ended with {error.returncode}; its last words stand above.", file=sys.stderr)
        return None


def compare_kernel(arguments, results):
    """Measures and prints the kernel's benchmarks. Returns the number of limits exceeded; None when none matches."""
    names = matching(arguments.kernel, arguments)
    if not names:
        return None
    measured = measure(arguments.kernel, names, "the kernel", *((3, 0.004) if arguments.quick else (5, 0.02)))
    if measured is None:
        return 1
    times, kernel = measured
    names = kernel.pop("names")
    results["kernel"] = kernel

    medians = {b: statistics.median(ns) for b, ns in times.items()}
    print_comparison(medians)
    return print_growth(medians, arguments.kernel, names)


# ---- The network -------------------------------------------------------------------------------------------------


class Row:
    """One row of the network: what each server reached in each repetition, in their order."""

    def __init__(self, name):
        self.name = name
        self.subject, *arguments = name.split("/")
        self.arguments = {key: int(value) for key, _, value in (a.partition(":") for a in arguments)}
        self.entries = collections.defaultdict(list)

    def median(self, server, key="value"):
        return statistics.median(entry[key] for entry in self.entries[server])

    def ratio(self, peer):
        """Ours in times of the peer's. Each repetition measures one soon after the other: the median of their ratios
        is disturbed less by what else the machine does than the ratio of their medians."""
        pairs = zip(self.entries[OURS], self.entries[peer])
        return statistics.median(ours["value"] / theirs["value"] for ours, theirs in pairs)

    def label(self):
        words = {"rfc1006": "RFC 1006", "tcp": "TCP", "udp": "UDP", "tls": "TLS"}
        return " ".join(words.get(word, word) for word in self.subject.split("_"))

    def over_tls(self):
        return self.subject in (TLS_ECHO, HANDSHAKE)

    def aim_peer(self):
        return TLS_PEER if self.over_tls() else AIM_PEER

    def counts(self):
        words = {"size": "bytes", "connections": "connections", "idle": "idle"}
        return ", ".join(f"{value:,} {words[key]}" for key, value in self.arguments.items())


def run_network(program, rows, repetitions, seconds):
    """Measures the rows of these names. Returns [Row] and the failures, as texts."""
    measured = {name: Row(name) for name in rows}
    failures = []
    pattern = "^(" + "|".join(rows) + ")$"  # the names hold nothing that an expression takes for more than itself
    command = [program, "--filter", pattern, "--repetitions", str(repetitions), "--seconds", str(seconds)]
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as process:
        for line in process.stdout:
            entry = json.loads(line)
            if "failure" in entry:
                failures.append(f"{entry['row']}, {entry['server']}: {entry['failure']}")
            else:
                measured[entry["row"]].entries[entry["server"]].append(entry)
    if process.returncode != 0 and not failures:
        failures.append(f"network_bench ended with {process.returncode}")
    return [row for row in measured.values() if row.entries[OURS]], failures


def has_aim(row):
    if row.subject == MEMORY:
        return True
    if row.over_tls():
        return row.arguments["size"] in (TLS_BYTES, 64) and bool(row.entries[TLS_PEER])
    return row.subject != CHURN and row.arguments["connections"] >= AIM_CONNECTIONS and bool(row.entries[AIM_PEER])


def aim_met(row):
    if row.subject == MEMORY:
        return row.median(OURS) < AIM_BYTES
    return row.ratio(row.aim_peer()) >= (TLS_SHARE if row.over_tls() else 1)


def print_network(rows):
    print("\nMessages (connections) per second, and how many times as many they are here as with each peer (above 1:")
    print("faster here); us: processor time of the server for one, of all its threads; for memory: bytes\n")
    for row in rows:
        memory = row.subject == MEMORY
        ours = f"{row.median(OURS):>9,.0f}" + ("" if memory else f" {row.median(OURS, 'processor_us'):6.2f} us")
        peers = [server for server in row.entries if server != OURS]
        cells = [
            f"{peer} {row.median(peer):,.0f}"
            + ("" if memory else f" {row.median(peer, 'processor_us'):.2f} us, x{row.ratio(peer):.2f}")
            for peer in sorted(peers, key=lambda p: (p != row.aim_peer(), p))
        ]
        aim = ("   aim: met" if aim_met(row) else "   aim: MISSED") if has_aim(row) else ""
        print(f"{row.label():22}{row.counts():40}{ours:20}  " + "".join(f"{c:33}" for c in cells).rstrip() + aim)
    disturbed = [entry["others_share"] for row in rows for entries in row.entries.values() for entry in entries
                 if row.subject != MEMORY]
    if disturbed:
        share = statistics.median(disturbed)
        print(f"\nOther programs took {share * 100:.0f}% of the processors meanwhile (median)."
              + (" The ratios say little then; the processor times do." if share > DISTURBED else ""))
    saturated = [r for r in rows if r.subject != MEMORY and r.median(OURS, "load_share") > 0.97]
    if saturated:
        print(f"In {len(saturated)} of {len(rows)} rows the load took all of its processor with this library's server.")


def print_aims(rows):
    aimed = [row for row in rows if has_aim(row) and not row.over_tls()]
    if not aimed:
        return
    met = sum(aim_met(row) for row in aimed)
    print(f"\nAim: with {AIM_CONNECTIONS} connections and more at least as many messages per second as {AIM_PEER}; less "
          f"than {AIM_BYTES:,} bytes\nof memory for an idle connection. Met in {met} of {len(aimed)} rows", end="")
    ratios = [row.ratio(AIM_PEER) for row in aimed if row.subject != MEMORY]
    print(f"; from x{min(ratios):.2f} to x{max(ratios):.2f} of {AIM_PEER}'s messages." if ratios else ".")


def print_tls(rows):
    aimed = [row for row in rows if row.over_tls() and has_aim(row)]
    if not aimed:
        return
    print(f"\nAim over TLS: x{TLS_SHARE} of the bytes per second of OpenSSL on epoll at {TLS_BYTES:,} bytes a message, and of "
          f"its handshakes.")
    for row in aimed:
        per_second = {server: row.median(server) for server in row.entries if row.entries[server]}
        if row.subject == TLS_ECHO:
            megabytes = ", ".join(f"{server} {n * row.arguments['size'] / 1e6:,.0f}" for server, n in per_second.items())
            print(f"{row.counts()}: megabytes a second each way: {megabytes}")
        else:
            print("handshakes a second: " + ", ".join(f"{server} {n:,.0f}" for server, n in per_second.items()))


def compare_network(arguments, results):
    """Measures and prints the network's rows. Returns the number of failures; None when no row matches."""
    repetitions, seconds = (3, 0.1) if arguments.quick else (5, 0.3)
    command = [arguments.network, "--list", "--filter", arguments.filter] + ["--quick"] * arguments.quick
    names = subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout.split()
    if not names:
        return None
    print(f"\nMeasuring {len(names)} rows of the network with each server, {repetitions} times each ...", flush=True)
    rows, failures = run_network(arguments.network, names, repetitions, seconds)
    results["network"] = [{"row": row.name, "entries": row.entries} for row in rows]
    print_network(rows)
    print_aims(rows)
    print_tls(rows)
    resent = sum(entry["resent"] for row in rows for entries in row.entries.values() for entry in entries)
    if resent:
        print(f"\n{resent} datagrams were lost and sent again.")
    for failure in failures:
        print(f"FAIL  {failure}")
    return len(failures)


# ---- DNS ---------------------------------------------------------------------------------------------------------


def compare_dns(arguments, results):
    """Measures and prints the decoding of DNS answers. Returns 1 when that fails; None when no name matches."""
    names = matching(arguments.dns, arguments)
    if not names:
        return None
    # The best of many short ones: what else the machine does only adds time.
    measured = measure(arguments.dns, names, "DNS", *((20, 0.01) if arguments.quick else (60, 0.01)))
    if measured is None:
        return 1
    times, results["dns"] = measured
    del results["dns"]["names"]
    lines = collections.defaultdict(dict)
    for b, ns in times.items():
        lines[b._replace(implementation="")][b.implementation] = min(ns)
    print("\nAnswers decoded per second, and how many times as many they are here as with each peer (above 1: faster")
    print("here)\n")
    met = aimed = 0
    for line, by_implementation in lines.items():
        ours = by_implementation.pop(OURS, None)
        if ours is None:
            continue
        cells = [f"{name} {1e9 / ns:,.0f}, x{ns / ours:.2f}" for name, ns in by_implementation.items()]
        verdict = ""
        if cells:
            aimed += 1
            reached = min(by_implementation.values()) / ours >= DNS_AIM
            met += reached
            verdict = f"   aim: {'met' if reached else 'MISSED'}"
        words = {"dns": "DNS", "a": "A", "srv": "SRV"}
        label = " ".join(words.get(word, word) for word in line.subject.split("_"))
        label += f", {line.size} record" + ("s" if line.size > 1 else "")
        print(f"{label:34}{1e9 / ours:>12,.0f}   " + "".join(f"{c:28}" for c in cells).rstrip() + verdict)
    if aimed:
        print(f"\nAim: {DNS_AIM} times the answers of the faster peer. Met in {met} of {aimed} lines.")
    return 0


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", choices=("kernel", "network", "dns"))
    parser.add_argument("--filter", default="")
    parser.add_argument("kernel")
    parser.add_argument("network")
    parser.add_argument("dns")
    parser.add_argument("results")
    arguments = parser.parse_args()

    began = time.monotonic()
    results = {}
    outcomes = []
    for part, compare in (("kernel", compare_kernel), ("network", compare_network), ("dns", compare_dns)):
        if arguments.only in (None, part):
            outcomes.append(compare(arguments, results))
    if all(outcome is None for outcome in outcomes):
        print(f"No benchmark's name matches '{arguments.filter}'.", file=sys.stderr)
        return 1
    with open(arguments.results, "w", encoding="utf-8") as file:
        json.dump(results, file, indent=1)

    exceeded = sum(outcome or 0 for outcome in outcomes)
    load = os.getloadavg()[0]
    print(f"\nTook {time.monotonic() - began:.0f} s on {os.cpu_count()} processors; load average {load:.1f}.", end=" ")
    print("Nothing failed or grows beyond its limit." if exceeded == 0 else f"{exceeded} failed or beyond the limit.")
    return 0 if exceeded == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
