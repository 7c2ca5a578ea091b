"""The list of mutants that no test can kill, equivalent.toml: who they are, and why."""

import dataclasses
import re
import tomllib


class ListError(Exception):
    pass


def key(file, function, change):
    return f"{file} | {function} | {change}"


def key_of(mutant):
    return key(mutant["file"], mutant["function"], mutant["change"])


@dataclasses.dataclass
class Rule:
    """A kind of change in one file. It explains survivors and leaves what a test kills alone."""

    file: str
    function: re.Pattern
    change: re.Pattern
    reason: str

    def fits(self, mutant):
        return (mutant["file"] == self.file and self.function.fullmatch(mutant["function"]) is not None
                and self.change.fullmatch(mutant["change"]) is not None)  # fmt: skip

    def __str__(self):
        return f"{self.file} | {self.function.pattern} | {self.change.pattern} (rule)"


class Reasons:
    def __init__(self):
        self.entries = {}  # key of a mutant -> reason
        self.rules = []

    def lists(self, mutant):
        """Whether an entry names this very mutant."""
        return key_of(mutant) in self.entries

    def of(self, mutant):
        """Why no test can kill it, or None."""
        rules = (rule.reason for rule in self.rules if rule.fits(mutant))
        return self.entries.get(key_of(mutant)) or next(rules, None)

    def stale(self, mutants):
        """Lines of the list that name no mutant of the tree."""
        names = {key_of(mutant) for mutant in mutants}
        return ([name for name in self.entries if name not in names]
                + [str(rule) for rule in self.rules if not any(map(rule.fits, mutants))])  # fmt: skip


def read(path):
    try:
        found = tomllib.loads(path.read_text(encoding="utf-8")) if path.exists() else {}
    except tomllib.TOMLDecodeError as error:
        raise ListError(f"{path.name}: {error}") from error
    reasons = Reasons()
    for i, entry in enumerate(found.pop("equivalent", []), 1):
        reason = checked(path, f"entry {i}", entry, ("file", "function", "mutants"))
        for change in entry["mutants"]:
            name = key(entry["file"], entry["function"], change)
            if name in reasons.entries:
                raise ListError(f"{path.name}: twice: {name}")
            reasons.entries[name] = reason
    for i, entry in enumerate(found.pop("rule", []), 1):
        reason = checked(path, f"rule {i}", entry, ("file", "function", "change"))
        try:
            reasons.rules.append(Rule(entry["file"], re.compile(entry["function"]), re.compile(entry["change"]), reason))
        except re.error as error:
            raise ListError(f"{path.name}: rule {i} ({entry['file']}): {error}") from error
    if found:
        raise ListError(f"{path.name}: '{next(iter(found))}' is neither an equivalent nor a rule")
    return reasons


def checked(path, what, entry, words):
    """The entry's reason, if it has that and all words."""
    for word in (*words, "reason"):
        if not entry.get(word):
            raise ListError(f"{path.name}: {what} ({entry.get('file', '?')}) has no '{word}'")
    return " ".join(entry["reason"].split())
