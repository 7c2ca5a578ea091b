"""What a line of C++ belongs to."""

import pathlib
import re
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tidy"))
import cpp  # noqa: E402
import sizes  # noqa: E402

NAME = re.compile(r"((?:~?\w+(?:<[^<>()]*>)?::)*(?:operator\s*(?:\(\)|[^\s\w(]+|\w+)|~?\w+))\s*\(")
NO_NAME = {"noexcept", "VYR_PRINTF", "__attribute__", "decltype", "alignas", "explicit", "if", "requires"}


def says_something(line):
    """False for a line that has nothing but brackets, or a comment."""
    return bool(re.search(r"\w", line.split("//")[0]))


def spans(text):
    """(first line, last line, name) of each outermost function."""
    code = cpp.blank(text, literals=True)
    lines = code.split("\n")
    found, end = [], 0
    for first, last in sorted(sizes.functions(text), key=lambda span: (span[0], -span[1])):
        if first <= end:
            continue  # a lambda, or a function of a local class
        head = " ".join(lines[first - 1 : last]).split("{")[0]
        names = [match[1] for match in NAME.finditer(head) if match[1] not in NO_NAME]
        found.append((first, last, names[0] if names else ""))
        end = last
    return found


def functions(text):
    """The name of the outermost function for each line that is in one."""
    return {number: name for first, last, name in spans(text) for number in range(first, last + 1)}
