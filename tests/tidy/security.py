"""Each row of docs/security.md names guards and tests that exist.

A guard is written as `file.cpp: Function`: a file of src/ or devkit/ of that name has that word. A test
is `Suite.Name`, or the path of a test that is a program of its own. A row without a test says none.
"""
import re

import oddities
from tree import Finding

REGISTER = "docs/security.md"
NO_TEST = "none"
COLUMNS = 5  # way in | what an attacker can do | what stops it | what does not | tests
GUARD = re.compile(r"`([\w.]+\.(?:cpp|h)): (\w+)`")
NAMED = re.compile(r"`([^`]+)`")


def rows(text):
    """Yields (line, cells) for each row of the tables, without their heads."""
    lines = text.split("\n")
    for number, line in enumerate(lines, 1):
        below = lines[number] if number < len(lines) else ""
        if line.startswith("|") and not line.startswith("|---") and not below.startswith("|---"):
            yield number, [cell.strip() for cell in line.strip()[1:-1].split("|")]


def missing_guards(tree, cell):
    for file, word in GUARD.findall(cell):
        owners = [path for path in tree.paths
                  if path.startswith(("src/", "devkit/")) and path.rsplit("/", 1)[-1] == file]
        if not any(re.search(rf"\b{word}\b", tree.text(path)) for path in owners):
            yield f"no such guard: {file}: {word}"


def missing_tests(tree, cell, known):
    named = NAMED.findall(cell)
    if not named and cell != NO_TEST:
        yield "names no test, and does not say none"
    for test in named:
        if test not in known and not ("/" in test and test in tree.paths):
            yield f"no such test: {test}"


def check(tree):
    if REGISTER not in tree.paths:
        return
    known = oddities.known_tests(tree)
    findings = []
    for line, cells in rows(tree.text(REGISTER)):
        if len(cells) != COLUMNS:
            findings.append(Finding(REGISTER, line, f"has {len(cells)} cells instead of {COLUMNS}"))
            continue
        problems = [*missing_guards(tree, cells[2]), *missing_tests(tree, cells[-1], known)]
        findings += [Finding(REGISTER, line, problem) for problem in problems]
    yield REGISTER, findings
