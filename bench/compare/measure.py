"""Runs the benchmarks and collects what they print."""

import datetime
import json
import os
import platform
import subprocess
import sys

CALLS = ("hook_bench", "route_bench", "tracker_bench", "quality_bench", "block_bench",
         "queue_bench")
WHOLE = ("udp_bench", "pace_bench", "tcp_bench")
NAMES = (*CALLS, *WHOLE, "wine")
MILLION = ("direct", "vyr", "nginx", "socat")


def run(tree, arguments):
    results = {"machine": describe(tree), "rounds": arguments.rounds, "calls": {}, "tables": {}}
    well = True
    for name in arguments.only or NAMES:
        print(f"{name}...", file=sys.stderr, flush=True)
        documents = documents_of(command_of(tree, name, arguments))
        well = well and bool(documents)
        for document in documents:
            take(results, name, document)
    if arguments.million:
        print("a million datagrams...", file=sys.stderr, flush=True)
        documents = documents_of(million(tree, arguments))
        well = well and bool(documents)
        for document in documents:
            take_percentiles(results, document)
    results["machine"]["load_after"] = os.getloadavg()[0]
    return results, well


def describe(tree):
    commit = subprocess.run(["git", "-C", tree, "describe", "--always", "--dirty"],
                            capture_output=True, text=True, check=False).stdout.strip()  # fmt: skip
    model = [line.split(":")[1].strip() for line in open("/proc/cpuinfo", encoding="utf-8")
             if line.startswith("model name")]  # fmt: skip
    return {"date": datetime.date.today().isoformat(), "commit": commit, "kernel": platform.release(),
            "processors": os.cpu_count(), "processor": model[0] if model else platform.machine(),
            "load_before": os.getloadavg()[0]}  # fmt: skip


def command_of(tree, name, arguments):
    if name == "wine":
        command = [tree / "scripts/testbed", "/usr/bin/python3", "-B", tree / "bench/compare/wine.py",
                   "--rounds", arguments.rounds]  # fmt: skip
        return [*command, "--quick"] if arguments.quick else command
    program = tree / "build/posix/bench" / name
    if not program.exists():
        sys.exit(f"bench/compare.sh: no {program.relative_to(tree)}; "
                 "build it: cmake --preset posix && cmake --build --preset posix")  # fmt: skip
    if name in CALLS:
        command = [program, "--benchmark_format=json", f"--benchmark_repetitions={arguments.rounds}",
                   "--benchmark_enable_random_interleaving=true"]  # fmt: skip
        return [*command, f"--benchmark_min_time={0.001 if arguments.quick else 0.05}"]
    command = [program, "--json", "--rounds", arguments.rounds, "--mend", "throughput"]
    if name == "pace_bench":
        command += ["--datagrams", arguments.datagrams]
    return [*command, "--quick"] if arguments.quick else command


def million(tree, arguments):
    ways = [word for way in MILLION for word in ("--way", way)]
    return [tree / "build/posix/bench/pace_bench", "--json", "--rounds", arguments.rounds, "--only", "60 flows",
            "--datagrams", 1000000, *ways]  # fmt: skip


def documents_of(command):
    """The JSON documents that a program prints; none if it fails or is left out."""
    ended = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, text=True, check=False)
    if ended.returncode != 0:
        print(f"  exit code {ended.returncode}{': left out' if ended.returncode == 77 else ''}",
              file=sys.stderr)  # fmt: skip
    documents, rest, decoder = [], ended.stdout.lstrip(), json.JSONDecoder()
    while rest:
        try:
            document, end = decoder.raw_decode(rest)
        except ValueError as error:
            print(f"  not JSON: {error}", file=sys.stderr)
            return []
        documents.append(document)
        rest = rest[end:].lstrip()
    return documents


def take(results, name, document):
    if name in CALLS:
        results["calls"][name] = medians(document)
    elif "percentiles" in document:
        take_percentiles(results, document)
    else:
        rows = results["tables"].setdefault(name, [])
        rows += document.get("rows", [])


def take_percentiles(results, document):
    for pace, ways in document.get("percentiles", {}).items():
        results.setdefault("percentiles", {}).setdefault(pace, {}).update(ways)


def medians(document):
    """Nanoseconds of processor time: the median of the repetitions, and where half of them lie."""
    times = {}
    for run_of_one in document["benchmarks"]:
        if run_of_one["run_type"] == "iteration":
            times.setdefault(run_of_one["run_name"], []).append(run_of_one["cpu_time"])
    return {name: {"ns": quantile(all_times, 0.5),
                   "quartiles": [quantile(all_times, 0.25), quantile(all_times, 0.75)]}
            for name, all_times in times.items()}  # fmt: skip


def quantile(values, share):
    ordered = sorted(values)
    return ordered[min(int(share * len(ordered)), len(ordered) - 1)]
