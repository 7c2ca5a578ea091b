"""Writes docs/mutants.md: how many mutants each folder has, and what is known of them."""

STATUSES = ("killed", "equivalent", "survived", "not reached", "not judged")

HEAD = """# Mutants

`scripts/mutate.sh --write` makes this page of its results; [its README](../tests/mutation/README.md) says what
a mutant is. *Survived* and *not reached* are those that still need a test or a reason, *not judged* those that
no run has come to. The judges were {tests} tests, with {seeds} of the seeds of each random world.

| folder of `src/` | mutants | killed | equivalent | survived | not reached | not judged |
|---|--:|--:|--:|--:|--:|--:|
"""


def page(statuses, seeds, tests):
    folders = {}
    for mutant, status in statuses:
        counts = folders.setdefault(mutant["file"].split("/")[0], dict.fromkeys(STATUSES, 0))
        counts[status] += 1
    folders = {name: folders[name] for name in sorted(folders)}
    total = {status: sum(counts[status] for counts in folders.values()) for status in STATUSES}
    rows = [(f"`{name}`", counts) for name, counts in folders.items()] + [("all", total)]
    lines = [f"| {name} | {sum(counts.values())} | " + " | ".join(str(counts[s]) for s in STATUSES) + " |\n"
             for name, counts in rows]  # fmt: skip
    return HEAD.format(tests=tests, seeds=seeds) + "".join(lines)
