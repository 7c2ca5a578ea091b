"""Which mutants are judged unless all are asked for: one of each statement, and of the statements two of three.

Two changes of one statement mostly say the same: all of them cost three times the work and tell little more. The
choice is made by hashes of the file, the function and the change: it takes all kinds alike, is the same in
every clone, and stays when lines move or other functions change."""

import hashlib
import re

SHARE = (2, 3)  # of the statements
# Where no statement begins: comments and literals, which may contain the signs that end one.
NO_CODE = re.compile(r"""//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])'""", re.DOTALL)


def rank(*words):
    return int.from_bytes(hashlib.sha256("\0".join(words).encode("latin-1", "replace")).digest()[:8], "big")


def name_of(mutant):
    return mutant["file"], mutant["function"], mutant["change"]


def mark(text, found, mutants):
    """Sets "chosen" in each mutant of a file; the places are those of the mutants."""
    code = NO_CODE.sub(lambda match: " " * len(match[0]), text)
    statements = {}
    for place, mutant in zip(found, mutants):
        begin = max(code.rfind(sign, 0, place.start) for sign in ";{}")
        statements.setdefault((mutant["function"], begin), []).append(mutant)
    for same in statements.values():
        first = min(same, key=lambda mutant: rank("mutant", *name_of(mutant)))
        wanted = rank("statement", *name_of(same[0])) % SHARE[1] < SHARE[0]
        for mutant in same:
            mutant["chosen"] = wanted and mutant is first
