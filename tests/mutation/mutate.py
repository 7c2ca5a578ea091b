#!/usr/bin/env python3
"""Changes the product in thousands of places, one at a time, and asks the tests whether they notice.

One change of each statement is judged, in two of three statements; with --all every change. All of them are
compiled into one build (preset `mutants`); the tests then run with one of them acting.
Survivors are listed with their file, line and change. Each needs a test that kills it, or its reason in
tests/mutation/equivalent.toml. What is known is kept in build/mutants/judge, so an interrupted run goes on.
tests/mutation/README.md describes the changes.

Exit: 0 all mutants that were asked for are killed or explained, 1 survivors, stale or wrong lines in the
list, 2 wrong usage, 77 no libclang for Python here (Debian: python3-clang-14)."""

import argparse
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time

import equivalents
import judge
import places
import schemata
import summary
from run import Run

ROOT = pathlib.Path(__file__).resolve().parents[2]
SRC = ROOT / "src"
BUILD = ROOT / "build/mutants"
PRODUCT = BUILD / "product"
KEPT = BUILD / "judge"
LIST = ROOT / "tests/mutation/equivalent.toml"
PAGE = ROOT / "docs/mutants.md"
OPTIONS = ["-std=c++20", f"-I{SRC}", f"-I{ROOT / 'port/include'}", f"-I{ROOT}", "-Wno-everything"]


def parse_arguments():
    about, ends = __doc__.rsplit("\n\n", 1)
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh", description=about, epilog=ends,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)  # fmt: skip
    parser.add_argument("--file", action="append", metavar="F", default=[],
                        help="only this file or folder of src/, as udp/node_link.cpp or udp (may be repeated)")
    parser.add_argument("--all", action="store_true",
                        help="all mutants, not one of each statement in two of three statements; builds the suites anew")
    parser.add_argument("--mutant", action="append", type=int, metavar="N", default=[],
                        help="only this mutant, judged again (may be repeated)")
    parser.add_argument("--seeds", type=int, default=1, metavar="N", help="seeds of each random world (default: 1)")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), metavar="N",
                        help="mutants that are judged at a time (default: one for each core)")
    parser.add_argument("--minutes", type=float, metavar="N", help="stop judging after so long; the next run goes on")
    parser.add_argument("--list", action="store_true", help="list the mutants and judge none")
    parser.add_argument("--json", metavar="FILE", help="write the results, or the list, as JSON")
    parser.add_argument("--write", action="store_true", help="write docs/mutants.md of what is known, and judge none")
    parser.add_argument("--again", action="store_true", help="forget what is known")
    parser.add_argument("--check-list", action="store_true", help="also judge the mutants listed as equivalent")
    parser.add_argument("--no-build", action="store_true", help="judge with the suites as they are")
    return parser.parse_args()


class Progress:
    """On a terminal one line that changes, otherwise a line every ten seconds."""

    def __init__(self):
        self.terminal = sys.stderr.isatty()
        self.last = 0.0

    def __call__(self, text):
        if self.terminal:
            width = shutil.get_terminal_size().columns - 1
            print(f"\r{text[:width]:<{width}}", end="", file=sys.stderr, flush=True)
        elif time.monotonic() - self.last >= 10:
            self.last = time.monotonic()
            print(text, file=sys.stderr, flush=True)

    def end(self):
        if self.terminal:
            print(file=sys.stderr)


def wanted(mutants, arguments):
    """The mutants that were asked for, in the order of the files that were named."""
    there = [mutant for mutant in mutants if arguments.all or mutant["chosen"]]
    if arguments.mutant:
        chosen = [mutant for mutant in there if mutant["number"] in arguments.mutant]
        if len(chosen) != len(set(arguments.mutant)):
            raise SystemExit("mutate: there is no mutant with one of these numbers, or only with --all; see --list")
        return chosen
    if not arguments.file:
        return there
    chosen = []
    for name in arguments.file:
        name = name.removeprefix("src/").rstrip("/")
        some = [mutant for mutant in there if mutant["file"] == name or mutant["file"].startswith(name + "/")]
        if not some:
            raise SystemExit(f"mutate: {name}: no such file or folder with mutants in src/")
        chosen += some
    return chosen


def build(jobs):
    """The suites, with the mutants in them."""
    log = BUILD / "build.log"
    with open(log, "wb") as output:
        for words in (["cmake", "--preset", "mutants"],
                      ["cmake", "--build", "--preset", "mutants", "-j", str(jobs), "--target", *judge.SUITES]):  # fmt: skip
            print(f"mutate: {' '.join(words)} (log: {log.relative_to(ROOT)})", file=sys.stderr, flush=True)
            if subprocess.run(words, cwd=ROOT, stdout=output, stderr=subprocess.STDOUT, check=False).returncode != 0:
                raise SystemExit(f"mutate: the build with the mutants failed; see {log}")


def show(run, chosen, stale, broken, left):
    """What the run found; returns the exit code."""
    counts = {}
    for mutant in chosen:
        status, result = run.status(mutant)
        counts[status] = counts.get(status, 0) + 1
        place = f"src/{mutant['file']}:{mutant['line']}"
        line = f"{place}: mutant {mutant['number']} in {mutant['function']}: {mutant['change']}"
        if status in ("survived", "not reached"):
            print(f"{line}: {status}" + (f" {result['met']} of {result['judges']} tests" if result["judges"] else ""))
        elif status == "killed" and run.reasons.lists(mutant):
            counts["wrong"] = counts.get("wrong", 0) + 1
            print(f"{line}: listed as equivalent, but {result['by']} {result['how']}")
    for name in stale:
        print(f"{LIST.name}: stale, no such mutant: {name}")
    for text in broken:
        print(f"without any mutant: {text}")
    words = [f"{len(chosen)} mutants"] + [f"{counts[word]} {word}" for word in counts]
    print(", ".join(words) + (f"; {left} left by --minutes" if left else ""))
    bad = counts.get("survived", 0) + counts.get("not reached", 0) + counts.get("wrong", 0) + len(stale) + len(broken)
    return 1 if bad else 0


def main():
    arguments = parse_arguments()
    if places.cindex is None:
        print("mutate: no libclang for Python here (Debian: python3-clang-14)", file=sys.stderr)
        return 77
    say = Progress()
    try:
        reasons = equivalents.read(LIST)
    except equivalents.ListError as error:
        print(f"mutate: {error}", file=sys.stderr)
        return 1
    found = schemata.places_of_all(SRC, OPTIONS, KEPT / "places", say)
    judging = not arguments.list and not arguments.write
    mutants = schemata.write_copy(SRC, PRODUCT if judging else None, found, arguments.all)
    chosen = wanted(mutants, arguments)
    run = Run(arguments, SRC, BUILD, reasons, say)
    if arguments.list:
        say.end()
        for mutant in chosen:
            print(f"{mutant['number']} src/{mutant['file']}:{mutant['line']} {mutant['function']}: {mutant['change']}")
        print(f"{len(chosen)} mutants of {len(mutants)}")
        if arguments.json:
            pathlib.Path(arguments.json).write_text(json.dumps(chosen, indent=1) + "\n")
        return 0
    if arguments.write:
        PAGE.write_text(summary.page([(mutant, *run.status(mutant)) for mutant in chosen], len(mutants),
                                     run.results.judges, run.results.seeds))  # fmt: skip
        return 0
    if not arguments.no_build:
        build(max(1, arguments.jobs))
    left = run.judge(chosen)
    say.end()
    code = show(run, chosen, reasons.stale(mutants), run.court.broken, left)
    if arguments.json:
        pathlib.Path(arguments.json).write_text(json.dumps([
            mutant | {"status": status, "result": result, "reason": reasons.of(mutant)}
            for mutant in chosen for status, result in [run.status(mutant)]], indent=1) + "\n")  # fmt: skip
    return code


if __name__ == "__main__":
    sys.exit(main())
