"""Writes docs/mutants.md: how many mutants each folder has, and what is known of them."""

STATUSES = ("killed", "equivalent", "survived", "not reached", "not judged")

HEAD = """# Mutants

`scripts/mutate.sh --write` makes this page of its results; `tests/mutation/README.md` says what
a mutant is. *Survived* and *not reached* are those that still need a test or a reason, *not judged* those that
no run has come to. The judges were {judges}.

| folder of `src/` | mutants | killed | equivalent | survived | not reached | not judged |
|---|--:|--:|--:|--:|--:|--:|
"""


def page(statuses, judges, seeds):
    folders = {}
    for mutant, status in statuses:
        counts = folders.setdefault(mutant["file"].split("/")[0], dict.fromkeys(STATUSES, 0))
        counts[status] += 1
    folders = {name: folders[name] for name in sorted(folders)}
    total = {status: sum(counts[status] for counts in folders.values()) for status in STATUSES}
    rows = [(f"`{name}`", counts) for name, counts in folders.items()] + [("all", total)]
    lines = [f"| {name} | {sum(counts.values())} | " + " | ".join(str(counts[s]) for s in STATUSES) + " |\n"
             for name, counts in rows]  # fmt: skip
    words = [f"{count} tests of `{suite}`" for suite, count in judges.items()]
    if "scenario_tests" in judges:
        words[-1] += f" (random worlds with a seed count of {seeds})"
    return HEAD.format(judges=" and ".join(words) or "none yet") + "".join(lines)
