"""Measures which lines and branches of src/ the unit tests, the scenarios, the races and the corpora of
the fuzz targets run, and checks the list of the lines that none of them runs."""

import argparse
import json
import pathlib
import sys

import document
import figures
import listed
import measure
import page
import swarm

TREE = pathlib.Path(__file__).resolve().parents[2]
LIST = TREE / "tests" / "coverage" / "uncovered.toml"


def parse_arguments():
    parser = argparse.ArgumentParser(
        prog="scripts/coverage.sh", description=__doc__,
        epilog="Exit codes: 0 every line runs or is listed, 1 a line is missing from the list, an entry of it is "
               "stale, or a build or a test failed, 2 wrong usage, 77 no clang or no llvm-cov here (Debian: "
               "clang, llvm). The list is tests/coverage/uncovered.toml; it is checked after whole runs only.",
    )  # fmt: skip
    parser.add_argument("--only", action="append", metavar="SUITE", choices=(*measure.SUITES, measure.SWARM),
                        help=f"only this one, or these: {', '.join(measure.SUITES)}; or {measure.SWARM} alone, "
                             "the worlds of scripts/swarm.sh, with figures of their own")
    parser.add_argument("--seeds", type=int, metavar="N", help="how many worlds of the swarm; 20 if it is not given")
    parser.add_argument("--filter", metavar="PATTERN", help="only these tests, as GoogleTest takes them")
    parser.add_argument("--add", action="store_true", help="adds to what the last run has counted")
    parser.add_argument("--last", action="store_true",
                        help="builds and runs nothing, shows the last run's figures")
    parser.add_argument("--file", action="append", default=[], metavar="F",
                        help="shows each line of this file that did not run in full")
    parser.add_argument("--html", type=pathlib.Path, metavar="DIR", help="writes pages, beginning at DIR/index.html")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="writes all figures as JSON; - is the output")
    parser.add_argument("--keep", action="store_true",
                        help=f"writes docs/coverage.md, or docs/swarm.md with --only {measure.SWARM}")
    arguments = parser.parse_args()
    arguments.swarm = arguments.only == [measure.SWARM]
    if not arguments.swarm and (measure.SWARM in (arguments.only or []) or arguments.seeds is not None):
        parser.error(f"--seeds wants --only {measure.SWARM}, which goes with no other suite")
    if arguments.seeds is None:
        arguments.seeds = 20
    if arguments.seeds < 1:
        parser.error("--seeds wants one world at least")
    if arguments.swarm and (arguments.filter or arguments.add):
        parser.error("the swarm is one test: --filter and --add make no sense with it")
    if arguments.keep and not arguments.add and not arguments.swarm and (arguments.only or arguments.filter):
        parser.error("--keep wants a whole run")
    if arguments.last and ((arguments.only and not arguments.swarm) or arguments.filter or arguments.add):
        parser.error("--last runs nothing, so --only, --filter and --add make no sense with it")
    return arguments


def paths_of(names, known):
    """The known file that each name means: a path in the tree, or its end."""
    for name in names:
        found = [path for path in known if path == name or path.endswith("/" + name)]
        if len(found) != 1:
            sys.exit(f"scripts/coverage.sh: {name}: {len(found)} files of src/ with code are called that")
        yield found[0]


def show_file(path, file):
    for number, text in enumerate(file.source, 1):
        notes = file.notes(number)
        if notes:
            print(f"{path}:{number}: {text.strip()}    <- {'; '.join(notes)}")


def main():
    arguments = parse_arguments()
    run = (measure.last(TREE, arguments.only) if arguments.last else
           measure.run(TREE, arguments.only, arguments.filter, arguments.add, arguments.seeds))  # fmt: skip
    files = figures.read(run["export"], TREE)
    try:
        verdict = listed.compare(files, listed.read(LIST))
    except listed.Unreadable as error:
        sys.exit(f"scripts/coverage.sh: {LIST.relative_to(TREE)}: {error}")
    if arguments.html:
        page.write(arguments.html, files, verdict)
        print(f"{arguments.html}/index.html", file=sys.stderr)
    if arguments.json:
        text = json.dumps(document.as_json(files, verdict, run), indent=1)
        print(text) if str(arguments.json) == "-" else arguments.json.write_text(text + "\n")
    if arguments.keep and arguments.swarm:
        (TREE / "docs" / "swarm.md").write_text(swarm.markdown(files, listed.read(LIST), run["seeds"],
                                                               document.place(TREE)))  # fmt: skip
    elif arguments.keep and not run["whole"]:
        print("only a part of the tests has run: docs/coverage.md stays as it is", file=sys.stderr)
    elif arguments.keep:
        (TREE / "docs" / "coverage.md").write_text(document.markdown(TREE, files, verdict))
    for path in paths_of(arguments.file, files):
        show_file(path, files[path])
    if not arguments.file and str(arguments.json) != "-":
        print(document.text(files, goals=not arguments.swarm))
    for failure in run["failures"]:
        print(f"failed: {failure}")
    if run["whole"]:
        print("\n".join(verdict.complaints()))
    else:
        print("only a part of the tests has run: the list is not checked")
    return 1 if run["failures"] or (run["whole"] and not verdict.good()) else 0


if __name__ == "__main__":
    sys.exit(main())
