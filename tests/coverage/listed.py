"""The list of lines that no test runs, each with its reason.

An entry names a file, a function and the texts of lines, not their numbers, so that it stays right when
lines move."""

import dataclasses
import tomllib

KEYS = {"file": str, "function": str, "lines": list, "reason": str}


class Unreadable(Exception):
    pass


@dataclasses.dataclass(frozen=True)
class Entry:
    file: str
    function: str
    text: str
    reason: str

    def place(self):
        return self.file, self.function, self.text


@dataclasses.dataclass
class Verdict:
    reasons: dict  # (file, number) -> why the line does not run
    missing: list  # (file, number, function, text) of lines that are not on the list
    stale: list  # (entry, why) for entries without a line that does not run

    def good(self):
        return not self.missing and not self.stale

    def complaints(self):
        for file, number, function, text in self.missing:
            yield f"{file}:{number}: never runs and is not on the list (function \"{function}\"): {text}"
        for entry, why in self.stale:
            yield f"{entry.file}: stale entry, {why} (function \"{entry.function}\"): {entry.text}"
        if self.good():
            yield f"{len(self.reasons)} lines never run, each for a reason that is listed"


def parse(text):
    try:
        read_entries = tomllib.loads(text)
    except tomllib.TOMLDecodeError as error:
        raise Unreadable(error) from error
    if set(read_entries) - {"uncovered"}:
        raise Unreadable(f"unknown key '{min(set(read_entries) - {'uncovered'})}'")
    entries = []
    for number, table in enumerate(read_entries.get("uncovered", []), 1):
        for key in table.keys() | KEYS.keys():
            if key not in KEYS:
                raise Unreadable(f"entry {number}: unknown key '{key}'")
            if not isinstance(table.get(key), KEYS[key]) or (key != "function" and not table[key]):
                raise Unreadable(f"entry {number}: '{key}' is missing, empty or of the wrong type")
        entries += [Entry(table["file"], table["function"], line.strip(), table["reason"])
                    for line in table["lines"]]  # fmt: skip
    twice = {entry.place() for entry in entries if sum(entry.place() == e.place() for e in entries) > 1}
    if twice:
        raise Unreadable(f"listed twice: {' | '.join(min(twice))}")
    return entries


def read(path):
    return parse(path.read_text()) if path.exists() else []


def compare(files, entries):
    by_place = {entry.place(): entry for entry in entries}
    reasons, missing, used = {}, [], set()
    for path, file in files.items():
        for number in file.uncovered():
            place = (path, file.functions.get(number, ""), file.source[number - 1].strip())
            if place in by_place:
                used.add(place)
                reasons[path, number] = by_place[place].reason
            else:
                missing.append((path, number, place[1], place[2]))
    stale = [(entry, why_stale(entry, files.get(entry.file))) for entry in entries if entry.place() not in used]
    return Verdict(reasons, missing, stale)


def why_stale(entry, file):
    if file is None:
        return "there is no such file with code"
    numbers = [n for n, line in enumerate(file.source, 1) if line.strip() == entry.text]
    if not numbers:
        return "there is no such line"
    if not any(file.functions.get(n, "") == entry.function for n in numbers):
        return "the line is in another function"
    return "the line runs"
