"""Measures the library beside other programs in one run: calls, datagrams, a game's pace, connections,
and the 32-bit library under Wine."""

import argparse
import json
import pathlib
import sys

import check
import measure
import report

TREE = pathlib.Path(__file__).resolve().parents[2]
LAST = TREE / "bench" / "last.json"


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="bench/compare.sh", description=__doc__,
        epilog="Exit codes: 0 done, 1 a benchmark failed or --check found a row that got worse, 2 wrong usage.",
    )  # fmt: skip
    parser.add_argument("--rounds", type=int, default=9, help="alternating rounds of each figure (default 9)")
    parser.add_argument("--datagrams", type=int, default=5000,
                        help="round trips of each figure at a game's pace, in all rounds (default 5000)")
    parser.add_argument("--million", action="store_true",
                        help="a million round trips of 60 flows, two minutes for each of "
                        f"{', '.join(measure.MILLION)}")
    parser.add_argument("--only", action="append", metavar="BENCH", choices=measure.NAMES,
                        help=f"only this one, or these: {', '.join(measure.NAMES)}")
    parser.add_argument("--quick", action="store_true", help="small amounts; the figures mean nothing")
    parser.add_argument("--from", dest="source", type=pathlib.Path, metavar="FILE",
                        help="measures nothing, takes the results of an earlier run")
    parser.add_argument("--output", type=pathlib.Path, metavar="FILE", help="writes the results as JSON")
    parser.add_argument("--check", action="store_true",
                        help="compares with bench/last.json and lists the rows that got worse beyond the spread")
    parser.add_argument("--keep", action="store_true",
                        help="writes bench/last.json, docs/performance.md and its pictures; with --only, the rest "
                        "stays as it was kept, if that was on the same machine")
    arguments = parser.parse_args()
    if arguments.source and (arguments.only or arguments.quick):
        parser.error("--from measures nothing, so --only and --quick make no sense with it")
    if arguments.million and (arguments.source or arguments.quick):
        parser.error("--million is measured, and takes its time")
    if arguments.keep and arguments.quick:
        parser.error("--keep wants figures that mean something")
    return arguments


def read_results(path):
    try:
        return json.loads(path.read_text())
    except OSError as error:
        sys.exit(f"bench/compare.sh: {path}: {error.strerror}")
    except ValueError as error:
        sys.exit(f"bench/compare.sh: {path}: no results of this program: {error}")


def merged(kept, results):
    """What was kept, with what was measured in its place."""
    if kept["machine"]["processor"] != results["machine"]["processor"]:
        sys.exit("bench/compare.sh: what was kept is from another machine: --keep wants a whole run")
    for part in ("calls", "tables", "percentiles"):
        kept.setdefault(part, {}).update(results.get(part, {}))
    return {**kept, "machine": results["machine"], "rounds": results["rounds"]}


def main():
    arguments = parse_arguments()
    if arguments.source:
        results, well = read_results(arguments.source), True
    else:
        results, well = measure.run(TREE, arguments)
    if arguments.output:
        arguments.output.write_text(json.dumps(results, indent=1) + "\n")
    if arguments.check:
        well = check.compare(read_results(LAST), results) and well
    if arguments.keep:
        if arguments.only:
            results = merged(read_results(LAST), results)
        LAST.write_text(json.dumps(results, indent=1) + "\n")
        report.write(TREE, results)
    if not (arguments.check or arguments.keep or arguments.output):
        print(report.text(TREE, results))
    return 0 if well else 1


if __name__ == "__main__":
    sys.exit(main())
