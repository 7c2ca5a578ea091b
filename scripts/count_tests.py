#!/usr/bin/env python3
"""Counts the tests in the logs of `ctest --verbose`.

usage: count_tests.py [--failures] LOG...

Adds up the results that each suite prints: GoogleTest's closing lines, and the lines
"N passed, N failed" (", N skipped") of the scripts. A suite that prints neither counts as one
test, with ctest's own verdict. Prints one line, "N passed, N failed, N skipped"; with
--failures, prints instead what each failed suite reported.
"""
import re
import sys

OUTPUT = re.compile(r"^(\d+): ?(.*)$")
VERDICT = re.compile(r"^ *\d+/\d+ Test +#(\d+): (\S+) \.*(.*?) +[\d.]+ sec")
PLAIN = re.compile(r"^(?:\w+: )?(\d+) passed, (\d+) failed(?:, (\d+) skipped)?\.?$")
GTEST = re.compile(r"^\[ {1,2}(PASSED|FAILED|SKIPPED) {1,2}\] (\d+) tests?[.,]")


def suites(path):
    """Yields (name, passed by ctest, lines) for each suite of a log."""
    lines = {}
    with open(path, encoding="utf-8", errors="replace") as log:
        for line in log:
            line = line.rstrip("\r\n")
            if match := OUTPUT.match(line):
                lines.setdefault(match[1], []).append(match[2])
            elif match := VERDICT.match(line):
                yield match[2], match[3].strip(), lines.pop(match[1], [])


def count(name, verdict, lines):
    passed = failed = skipped = 0
    spoke = False
    if name.startswith("tidy"):
        lines = []  # its numbers count files, in thousands of lines; the suite is one test
    for line in lines:
        if match := PLAIN.match(line.strip()):
            passed, failed = passed + int(match[1]), failed + int(match[2])
            skipped += int(match[3] or 0)
            spoke = True
        elif match := GTEST.match(line):
            number = int(match[2])
            passed += number if match[1] == "PASSED" else 0
            failed += number if match[1] == "FAILED" else 0
            skipped += number if match[1] == "SKIPPED" else 0
            spoke = True
    ok = verdict == "Passed"
    if not spoke:
        if verdict.endswith("Skipped"):
            return 0, 0, 1
        return int(ok), int(not ok), 0
    if not ok and failed == 0:
        failed = 1  # no test failed, but the suite did: a crash or a timeout
    return passed, failed, skipped


def complaint(lines):
    """The lines of a suite that show why it failed: for GoogleTest those of the tests that did not
    pass, including a crash; for others the last lines."""
    said, test = [], None
    for line in lines:
        if line.startswith("[ RUN "):
            test = []
        elif line.startswith(("[       OK ]", "[  SKIPPED ]")):
            test = None
        if test is not None:
            test.append(line)
            if line.startswith("[  FAILED  ]"):
                said, test = said + test[-60:], None
    if test:
        said += test[-60:]  # this test did not end
    return said or lines[-60:]


def main(arguments):
    if not arguments or arguments[0] in ("-h", "--help"):
        print(__doc__.strip())
        return 2
    if arguments[0] == "--failures":
        for path in arguments[1:]:
            for name, verdict, lines in suites(path):
                if verdict == "Passed" or verdict.endswith("Skipped"):
                    continue
                print(f"--- {name}: {verdict}")
                print("\n".join(complaint(lines)))
        return 0
    totals = [0, 0, 0]
    for path in arguments:
        for suite in suites(path):
            totals = [a + b for a, b in zip(totals, count(*suite))]
    print("{} passed, {} failed, {} skipped".format(*totals))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
