#!/usr/bin/env python3
"""Runs the benchmark and prints what it found.

Every row, workload and round is a process of its own, and the rounds are shuffled, so
that whatever else the machine does meets all rows alike.  Ratios are taken within a
round; medians and quartiles are over the rounds.
"""

import argparse
import collections
import json
import os
import pathlib
import random
import re
import statistics
import subprocess
import sys
import tempfile

from draw import draw

ROOT = pathlib.Path(__file__).resolve().parent.parent
ABIS = {"64-bit": ROOT / "build/bench/bench", "32-bit": ROOT / "build/bench32/bench"}
PROGRAMS = ("zel_bench", "zel_bench_one", "zel_bench_untraced", "zel_bench_mimalloc")
PROTOBUF = "protobuf, arenas"
LIMIT = "limit: hand-inlined"
TRACED, UNTRACED = "libzel, one binary", "libzel, one binary, traces compiled out"
ONLY_SIZES = (UNTRACED, "libzel, one binary, mimalloc")  # rows without growth curves
SIZES = ("S", "M", "L")
DIRECTIONS = ("encode", "decode")

Case = collections.namedtuple("Case", "program row workload")


def run(*command):
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))} failed:\n{done.stderr}")
    return done


def progress(text=""):
    if sys.stderr.isatty():
        print(f"\r\033[K{text}", end="", file=sys.stderr, flush=True)


def all_cases(folder):
    """In the order of the tables: libzel first, the limits last."""
    cases = [Case(folder / program, *line.split("\t"))
             for program in PROGRAMS if (folder / program).exists()
             for line in run(folder / program, "list").stdout.splitlines()]
    return sorted(cases, key=lambda case: (not case.row.startswith("libzel"), case.row.startswith("limit")))


# ---- Timing


class Results:
    """Nanoseconds per object of one ABI, by (row, workload, direction), a list over the rounds."""

    def __init__(self, cases):
        # The rounds have orders of their own, the tables have this one.
        self.samples = {(case.row, case.workload, direction): [] for case in cases for direction in DIRECTIONS}
        self.loads = []
        self.bytes_per_object = {}
        self.checksums = {}

    def add(self, case, benchmarks):
        for result in benchmarks:
            key = case.row, case.workload, result["name"]
            self.samples.setdefault(key, []).append(result["cpu_time"] / result["objects"])
            self.bytes_per_object[case.row, case.workload] = result["bytes"] / result["objects"]
            self.checksums[case.row, case.workload] = result["checksum"]

    def rows(self, workload):
        return list(dict.fromkeys(row for row, load, _ in self.samples if load == workload))

    def workloads(self):
        return list(dict.fromkeys(load for _, load, _ in self.samples))

    def median(self, *key):
        return statistics.median(self.samples[key])

    def ratio(self, row, base, workload, direction):
        ours, theirs = (self.samples.get((r, workload, direction)) for r in (row, base))
        return statistics.median(a / b for a, b in zip(ours, theirs)) if theirs else None

    def as_json(self):
        return [
            {"row": row, "workload": load, "direction": direction, "ns_per_object": samples,
             "bytes_per_object": self.bytes_per_object[row, load]}
            for (row, load, direction), samples in self.samples.items()
        ]


def time_all(cases, rounds, min_time, results):
    shuffled = random.Random(1)
    for number in range(rounds):
        for case in shuffled.sample(cases, len(cases)):
            progress(f"round {number + 1} of {rounds}: {case.row}, {case.workload}")
            done = run(case.program, "time", case.row, case.workload, f"--benchmark_min_time={min_time}",
                       "--benchmark_format=json")
            results.add(case, json.loads(done.stdout)["benchmarks"])
            results.loads.append(os.getloadavg()[0])
    progress()


def check_same_bytes(results):
    """The limit is one only if it writes what the library writes, however that is built."""
    for workload in results.workloads():
        sums = {row: results.checksums[row, workload] for row in results.rows(workload)
                if row.startswith(("libzel", "limit"))}
        if len(set(sums.values())) != 1:
            sys.exit(f"different messages for {workload}: {sums}")


def time_abi(folder, quick):
    cases = all_cases(folder)
    sizes = [case for case in cases if case.workload in SIZES]
    curves = [case for case in cases if case.workload not in SIZES and case.row not in ONLY_SIZES]
    results = Results(sizes + curves)
    time_all(sizes, 3 if quick else 15, 0.01 if quick else 0.05, results)
    time_all(curves, 1 if quick else 7, 0.01 if quick else 0.02, results)
    check_same_bytes(results)
    return results


# ---- Tables


def cell(value, width=7, digits=1):
    return f"{'':>{width}}" if value is None else f"{value:{width}.{digits}f}"


def spread(samples):
    low, _, high = statistics.quantiles(samples, n=4, method="inclusive")
    return f"{low:.0f}..{high:.0f}"


def print_sizes(results):
    print("ns per match or action: median, quartiles, and ratios to protobuf and to the hand-inlined limit\n")
    print(f"{'':44}{'bytes':>6}" + "".join(f"{direction:>10}{'':>14}{'/pb':>6}{'/limit':>8}" for direction in DIRECTIONS))
    for workload in SIZES:
        print(workload)
        for row in results.rows(workload):
            line = f"  {row:42}{cell(results.bytes_per_object[row, workload], 6, 0)}"
            for direction in DIRECTIONS:
                key = (row, workload, direction)
                line += cell(results.median(*key), 10) + f"{spread(results.samples[key]):>14}"
                line += cell(results.ratio(row, PROTOBUF, workload, direction), 6, 2)
                line += cell(results.ratio(row, LIMIT, workload, direction), 8, 1)
            print(line.rstrip())
    print()


def print_verifying(results):
    print("verify, ns per match or action, and by the time to decode and release")
    for row in dict.fromkeys(row for row, _, direction in results.samples if direction == "verify"):
        print(f"  {row:42}" + "".join(
            f"{size:>4}{results.median(row, size, 'verify'):7.1f}"
            f"{results.median(row, size, 'verify') / results.median(row, size, 'decode'):6.2f}"
            for size in SIZES if (row, size, "verify") in results.samples))
    print()


def print_traces(results):
    print("what silent traces cost: libzel as one binary, by the time without them")
    for direction in DIRECTIONS:
        print(f"  {direction}  " + "".join(f"{size:>6}{results.ratio(TRACED, UNTRACED, size, direction):6.2f}"
                                          for size in SIZES))
    print()


def print_curves(results):
    curves = [workload.split() for workload in results.workloads() if workload not in SIZES]
    counts, orders = (list(dict.fromkeys(part)) for part in zip(*curves))
    for direction in DIRECTIONS:
        print(f"{direction}, ns per match, for a number of distinct matches with ids in order")
        print(f"{'':44}" + "".join(f"{count:>8}" for count in counts))
        for row in results.rows(f"{counts[0]} {orders[0]}"):
            for order in orders:
                print(f"  {row + ', ' + order:42}" +
                      "".join(cell(results.median(row, f"{count} {order}", direction), 8) for count in counts))
        print()


def memory(folder):
    workload = "65535 random"
    program = folder / "zel_bench_memory"
    return {row: json.loads(run(program, row, workload).stdout) for row in ("libzel", LIMIT)}


def print_memory(use):
    print("bytes of heap for 65,535 distinct matches; cache: live beside the message or the graph, at the peak")
    print(f"{'':44}{'message':>10}{'+ cache':>10}{'graph':>10}{'+ cache':>10}")
    for row, bytes_of in use.items():
        print(f"  {row:42}" + "".join(f"{bytes_of[part]:>10}" for part in ("message", "encoding", "graph", "decoding")))
    print()


def values(folder, quick):
    program = folder / "zel_bench_values"
    return {size: json.loads(run(program, size, 3 if quick else 101).stdout) for size in SIZES}


def print_values(times):
    print("zel.hpp: filling a graph and making its message, ns per match or action, on a heap that keeps its pages;\n"
          "the last column is the time without that of filling the vectors, by the time with C records")
    print(f"{'':44}" + "".join(f"{name:>10}" for name in ("records", "vectors", "values", "numbered")) + f"{'/records':>10}")
    for size, ns in times.items():
        print(f"  {size:42}" + "".join(f"{ns[name]:10.1f}" for name in ("records", "vectors", "values", "numbered")) +
              f"{(ns['values'] - ns['vectors']) / ns['records']:10.2f}")
    print()


def circumstances():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    compiler = run("g++", "--version").stdout.splitlines()[0]
    return {"cpu": cpu.group(1) if cpu else "unknown", "cpus": os.cpu_count(), "compiler": compiler,
            "load_at_start": round(os.getloadavg()[0], 1)}


def command_time(options):
    document = {"circumstances": circumstances()}
    for abi, folder in ABIS.items():
        results = time_abi(folder, options.quick)
        use = memory(folder)
        through_values = values(folder, options.quick)
        print(f"==== {abi} ====\n")
        print_sizes(results)
        print_verifying(results)
        print_traces(results)
        print_curves(results)
        print_memory(use)
        print_values(through_values)
        document[abi] = {"results": results.as_json(), "memory": use, "values": through_values}
        load = statistics.quantiles(results.loads, n=4)
        print(f"load average during the run, 1 is this benchmark: median {load[1]:.1f}, quartiles "
              f"{load[0]:.1f}..{load[2]:.1f}\n")
    print(", ".join(f"{name}: {value}" for name, value in document["circumstances"].items()))
    output = ROOT / "build/bench.json"
    output.write_text(json.dumps(document, indent=1))
    print(f"all samples: {output.relative_to(ROOT)}")


# ---- Instructions


# What the functions of libzel as one binary are there for; the first that fits.
PARTS = {
    "C library: heap, long copies": r"C library",
    "marks": r"Marks|mat_cache|ravl_",
    "reading elements": r"decode|read_|allocate_array|parse",
    "sizes": r"encoded_size|add_apart",
    "writing elements": r"encode|append|add_",
    "releasing, and the rest": r"",
}


def self_costs(lines):
    """Instructions of each function itself, the C library's together, of a callgrind profile."""
    names, costs = {}, collections.Counter()
    current = {"ob": "", "fn": ""}
    is_call = False
    for line in lines:
        if named := re.match(r"(ob|fn|cob|cfn)=\((\d+)\)(?: (.*))?", line):
            kind, number, name = named.groups()
            name = names.setdefault((kind[-2:], number), name)
            if kind in current:
                current[kind] = name
        elif line.startswith("calls="):
            is_call = True  # the next line has what the callee cost
        elif re.match(r"[0-9+*-]", line):
            if not is_call:
                function = "C library" if "/libc.so" in current["ob"] else current["fn"]
                costs[function] += int(line.split()[1])
            is_call = False
    return costs


def instructions_per_object(case, direction, repetitions=10):
    facts = json.loads(run(case.program, "time", case.row, case.workload, "--benchmark_min_time=0",
                           "--benchmark_format=json").stdout)["benchmarks"][0]
    with tempfile.NamedTemporaryFile() as profile:
        run("valgrind", "--tool=callgrind", f"--callgrind-out-file={profile.name}", "--toggle-collect=measured",
            case.program, "repeat", case.row, case.workload, direction, repetitions)
        costs = self_costs(pathlib.Path(profile.name).read_text().splitlines())
    return {function: cost / repetitions / facts["objects"] for function, cost in costs.items()}


def by_part(costs):
    parts = dict.fromkeys(PARTS, 0)
    for function, cost in costs.items():
        parts[next(part for part, pattern in PARTS.items() if re.search(pattern, function))] += cost
    return parts


def print_instructions(counts):
    print("instructions per match or action in M, and ratios to the hand-inlined limit\n")
    print(f"{'':44}" + "".join(f"{direction:>10}{'/limit':>8}" for direction in DIRECTIONS))
    limits = [sum(costs.values()) for costs in counts[LIMIT]]
    for row, both in counts.items():
        print(f"  {row:42}" + "".join(f"{sum(costs.values()):10.1f}{sum(costs.values()) / limit:8.2f}"
                                      for costs, limit in zip(both, limits)))
    print(f"\nwhat they are for in {TRACED}\n")
    parts = [by_part(costs) for costs in counts[TRACED]]
    for part in PARTS:
        print(f"  {part:42}" + "".join(f"{of[part]:10.1f}{'':8}" for of in parts).rstrip())
    print()


def command_instructions(_):
    document = {}
    for abi, folder in ABIS.items():
        counts = {}
        for case in (case for case in all_cases(folder) if case.workload == "M"):
            progress(case.row)
            counts[case.row] = [instructions_per_object(case, direction) for direction in DIRECTIONS]
        progress()
        print(f"==== {abi} ====\n")
        print_instructions(counts)
        document[abi] = {direction: by_part(costs) for direction, costs in zip(DIRECTIONS, counts[TRACED])}
    (ROOT / "build/instructions.json").write_text(json.dumps(document, indent=1))


def command_draw(_):
    draw(ROOT)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    commands = parser.add_subparsers(required=True)
    timing = commands.add_parser("time", help="nanoseconds and heap")
    timing.add_argument("--quick", action="store_true", help="few and short rounds, to see that everything runs")
    timing.set_defaults(command=command_time)
    counting = commands.add_parser("instructions", help="instructions, by callgrind")
    counting.set_defaults(command=command_instructions)
    drawing = commands.add_parser("draw", help="the pictures in docs/performance, from the last runs")
    drawing.set_defaults(command=command_draw)
    options = parser.parse_args()
    options.command(options)


if __name__ == "__main__":
    main()
