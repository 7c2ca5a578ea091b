"""The list of mutants that no test can kill, equivalent.toml: who they are, and why."""

import tomllib


class ListError(Exception):
    pass


def key(file, function, change):
    return f"{file} | {function} | {change}"


def key_of(mutant):
    return key(mutant["file"], mutant["function"], mutant["change"])


def read(path):
    """The reasons, by the key of a mutant."""
    try:
        entries = tomllib.loads(path.read_text(encoding="utf-8")).get("equivalent", []) if path.exists() else []
    except tomllib.TOMLDecodeError as error:
        raise ListError(f"{path.name}: {error}") from error
    reasons = {}
    for i, entry in enumerate(entries, 1):
        for word in ("file", "function", "mutants", "reason"):
            if not entry.get(word):
                raise ListError(f"{path.name}: entry {i} ({entry.get('file', '?')}) has no '{word}'")
        for change in entry["mutants"]:
            name = key(entry["file"], entry["function"], change)
            if name in reasons:
                raise ListError(f"{path.name}: twice: {name}")
            reasons[name] = " ".join(entry["reason"].split())
    return reasons


def stale(reasons, mutants):
    """Lines of the list that name no mutant of the tree."""
    names = {key_of(mutant) for mutant in mutants}
    return [name for name in reasons if name not in names]
