"""Every Kept: and Guard: in src/ has a row in docs/oddities.md, and every row has its mark.

A row names the mark by the name of its file and the words with which it begins, so that it stays
right when a file moves to another folder. The tests that it names must exist. Rows of what is mended
on request name their tests too, and the words that files have for them.
"""
import dataclasses
import re

from tree import Finding

REGISTER = "docs/oddities.md"
MENDINGS = "src/abi/mending_names.h"
NO_TEST = "none"
MARK = re.compile(r"\b(Kept|Guard):")
MISSPELT = re.compile(r"//.*(?:\b(?:kept|guard):|\b(?:Kept|Guard)\.$)")
ROW = re.compile(r'^\| `([\w.]+)` "(.+?)" \|(.+)\|(.+)\|(.+)\|$')
MENDED = re.compile(r"^\| `([\w-]+)` \|(.+)\|(.+)\|(.+)\|(.+)\|$")
MENDING = re.compile(r'\{"([\w-]+)", kMend(?!All\b)\w+\}')
TEST = re.compile(r"^[ \t]*(\w*(?:TEST|SCENARIO)\w*)\(\s*(\w+)\s*(?:,\s*(\w+))?", re.MULTILINE)
# A file's own macro for a scenario; the definition names the fixture.
SHORT_FORM = re.compile(r"^#define (\w+)\((\w+)[^)]*\)[\s\\]+\w+\(\s*(\w+),\s*\2\b", re.MULTILINE)


@dataclasses.dataclass(frozen=True)
class Mark:
    path: str
    line: int
    kind: str
    text: str

    def is_meant_by(self, row):
        return (self.kind == row.kind and self.path.rsplit("/", 1)[-1] == row.file
                and self.text.lower().startswith(row.words.lower()))


@dataclasses.dataclass(frozen=True)
class Row:
    line: int
    kind: str  # of the table that it is in
    file: str
    words: str
    tests: tuple


def comment_of(line):
    """The comment of a line, after the //; None if there is none."""
    start = line.find("//")
    return None if start < 0 else line[start + 2:].strip()


def marks(path, text):
    lines = text.split("\n")
    for number, line in enumerate(lines):
        said = comment_of(line)
        if said is None or not MARK.search(said):
            continue
        for below in lines[number + 1:]:  # the rest of the comment
            if not below.strip().startswith("//"):
                break
            said += " " + comment_of(below)
        for match in MARK.finditer(comment_of(line)):
            yield Mark(path, number + 1, match[1], " ".join(said[match.end():].split()))


def misspelt(path, text):
    for number, line in enumerate(text.split("\n"), 1):
        if MISSPELT.search(line):
            yield Finding(path, number, "a mark is written 'Kept: what' or 'Guard: what'")


def rows(text):
    kind = None
    for number, line in enumerate(text.split("\n"), 1):
        if heading := re.match(r"^#+ (Kept|Guard)\b", line):
            kind = heading[1]
        elif kind is None:
            continue  # the rows of mendings on request have a different form
        elif row := ROW.match(line):
            named = row[5].strip()
            tests = () if named == NO_TEST else tuple(re.findall(r"`([^`]+)`", named)) or (named,)
            yield Row(number, kind, row[1], row[2], tests)
        elif line.startswith("| `"):
            yield Finding(REGISTER, number, "not a row: | `file` \"words\" | what | who | test |")


def mended(text):
    """Yields (line, name, tests) for each row of mendings on request."""
    for number, line in enumerate(text.split("\n"), 1):
        if row := MENDED.match(line):
            yield number, row[1], re.findall(r"`([^`]+)`", row[5])


def check_mended(tree, known):
    listed = {name: (line, tests) for line, name, tests in mended(tree.text(REGISTER))}
    offered = MENDING.findall(tree.text(MENDINGS)) if MENDINGS in tree.paths else []
    for name in offered:
        if name not in listed:
            yield Finding(REGISTER, 0, f"has no row for what is mended as '{name}'")
    for name, (line, tests) in listed.items():
        if name not in offered:
            yield Finding(REGISTER, line, f"a file cannot ask for '{name}'")
        if not tests:
            yield Finding(REGISTER, line, f"no test for '{name}'")
        yield from (Finding(REGISTER, line, f"no such test: {test}") for test in tests
                    if test not in known)


def tests_of(text):
    short_forms = {name: suite for name, _, suite in SHORT_FORM.findall(text)}
    for macro, first, second in TEST.findall(text):
        if macro in short_forms:
            yield f"{short_forms[macro]}.{first}"
        elif second:
            yield f"{first}.{second}"


def known_tests(tree):
    return {name for path in tree.cpp_files("tests/") for name in tests_of(tree.text(path))}


def check(tree):
    found = [m for path in tree.cpp_files("src/") for m in marks(path, tree.text(path))]
    if not found and REGISTER not in tree.paths:
        return
    if REGISTER not in tree.paths:
        yield REGISTER, [Finding(REGISTER, 0, f"is missing, and src/ has {len(found)} marks")]
        return
    read = list(rows(tree.text(REGISTER)))
    known = known_tests(tree)
    findings = [r for r in read if isinstance(r, Finding)]
    listed = [r for r in read if isinstance(r, Row)]
    for path in tree.cpp_files("src/"):
        findings += misspelt(path, tree.text(path))
    for mark in found:
        owners = [r for r in listed if mark.is_meant_by(r)]
        if len(owners) != 1:
            findings.append(Finding(mark.path, mark.line, f"has {len(owners)} rows instead of one "
                                    f"in {REGISTER}: {mark.kind}: {mark.text[:60]}"))
    for row in listed:
        if not any(m.is_meant_by(row) for m in found):
            findings.append(Finding(REGISTER, row.line, f"no such mark: {row.file} \"{row.words}\""))
        for test in row.tests:
            if test not in known:
                findings.append(Finding(REGISTER, row.line, f"no such test: {test}"))
    yield REGISTER, findings + list(check_mended(tree, known))
