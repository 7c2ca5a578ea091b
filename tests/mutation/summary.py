"""Writes docs/mutants.md: how many mutants each folder has, and what is known of them."""

STATUSES = ("killed", "equivalent", "survived", "not reached", "not judged")

HEAD = """# Mutants

`scripts/mutate.sh --write` makes this page of its results; `tests/mutation/README.md` says what
a mutant is. Of the {total} mutants of `src/` these are {chosen}.
*Equivalent* are those that change nothing that a test could see, each with its reason in
`tests/mutation/equivalent.toml`. *Survived* and *not reached* are those that still need a test or a reason, *not judged* those that no run has come to.
The judges were {judges}.{part}

| folder of `src/` | mutants | killed | equivalent | survived | not reached | not judged |
|---|--:|--:|--:|--:|--:|--:|
"""


def page(known, total, judges, seeds):
    """known: of each mutant itself, its status and its result."""
    folders = {}
    for mutant, status, _ in known:
        counts = folders.setdefault(mutant["file"].split("/")[0], dict.fromkeys(STATUSES, 0))
        counts[status] += 1
    folders = {name: folders[name] for name in sorted(folders)}
    sums = {status: sum(counts[status] for counts in folders.values()) for status in STATUSES}
    rows = [(f"`{name}`", counts) for name, counts in folders.items()] + [("all", sums)]
    lines = [f"| {name} | {sum(counts.values())} | " + " | ".join(str(counts[s]) for s in STATUSES) + " |\n"
             for name, counts in rows]  # fmt: skip
    words = [f"{count} tests of `{suite}`" for suite, count in judges.items()]
    if "scenario_tests" in judges:
        words[-1] += f" (random worlds with a seed count of {seeds})"
    part = sum(status == "survived" and result["met"] < result["judges"] for _, status, result in known)
    head = HEAD.format(judges=" and ".join(words) or "none yet", total=total,
                       chosen="all" if len(known) == total else f"the {len(known)} that are judged by default\n(one of each statement, in two of three statements)",
                       part=f"\n{part} of the survivors have met the cheap tests only." if part else "")  # fmt: skip
    return head + "".join(lines)
