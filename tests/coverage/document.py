"""The figures as text, as JSON and as docs/coverage.md."""

import datetime
import subprocess

GOALS = {"lines": 98.0, "branches": 95.0}


def share(part, whole):
    return 100.0 * part / whole if whole else 100.0


def add_up(files):
    """Sums of some files."""
    sums = {"files": len(files)}
    sums["lines"] = sum(len(f.lines) for f in files)
    sums["lines_run"] = sum(f.ran() for f in files)
    sums["branches"] = sum(f.branch_count() for f in files)
    sums["branches_taken"] = sum(f.branches_taken() for f in files)
    sums["line_share"] = round(share(sums["lines_run"], sums["lines"]), 2)
    sums["branch_share"] = round(share(sums["branches_taken"], sums["branches"]), 2)
    return sums


def by_folder(files):
    folders = {}
    for path, file in files.items():
        folders.setdefault(path.rsplit("/", 1)[0], []).append(file)
    return {folder: add_up(members) for folder, members in sorted(folders.items())}


def row(name, sums):
    return (f"{name:<16} {sums['lines_run']:>6} of {sums['lines']:>6} {sums['line_share']:>7.2f} %   "
            f"{sums['branches_taken']:>6} of {sums['branches']:>6} {sums['branch_share']:>7.2f} %")  # fmt: skip


def text(files, goals=True):
    total = add_up(list(files.values()))
    rows = [f"{'':<16} {'lines':>16} {'':>9}   {'branches':>16}"]
    rows += [row(folder, sums) for folder, sums in by_folder(files).items()]
    rows.append(row("all", total))
    for name, key in (("lines", "line_share"), ("branches", "branch_share")):
        if goals and total[key] < GOALS[name]:
            rows.append(f"{name}: {total[key]:.2f} % is below the goal of {GOALS[name]:.0f} %")
    return "\n".join(rows)


def as_json(files, verdict, run):
    lines = [{"file": f, "line": n, "function": files[f].functions.get(n, ""), "text": files[f].source[n - 1].strip(),
              "reason": verdict.reasons.get((f, n))} for f in files for n in files[f].uncovered()]  # fmt: skip
    branches = [{"file": f, "line": line, "column": column, "true": yes, "false": no}
                for f, file in files.items() for (line, column), (yes, no) in sorted(file.branches.items())
                if not (yes and no)]  # fmt: skip
    return {"suites": run["suites"], "failures": run["failures"], "all": add_up(list(files.values())),
            "folders": by_folder(files), "files": {f: add_up([file]) for f, file in files.items()},
            "uncovered_lines": lines, "uncovered_branches": branches,
            "stale": [{"file": e.file, "function": e.function, "text": e.text, "why": why}
                      for e, why in verdict.stale]}  # fmt: skip


def place(tree):
    """The day and the commit of a measurement."""
    commit = subprocess.run(["git", "-C", tree, "describe", "--always"], capture_output=True, text=True,
                            check=False).stdout.strip()  # fmt: skip
    return f"{datetime.date.today().isoformat()} at {commit}"


def markdown(tree, files, verdict):
    rows = [*by_folder(files).items(), ("**all**", add_up(list(files.values())))]
    table = "\n".join(f"| {name} | {s['lines']:,} | {s['line_share']:.2f} | {s['branches']:,} | "
                      f"{s['branch_share']:.2f} |" for name, s in rows)  # fmt: skip
    return f"""<!-- Made by scripts/coverage.sh --keep from tests/coverage/document.py: change that. -->
# Coverage

Which lines and branches of `src/` the unit tests, the scenarios, the races and the corpora of the fuzz
targets run together, counted by clang. A line of brackets alone does not count, and neither does an
exception's way out of a call. A condition has two branches: true and false.
`tests/coverage/README.md` says how it is measured and what is counted.

Measured on {place(tree)} with `scripts/coverage.sh --keep`. The goals are
{GOALS['lines']:.0f} % of the lines and {GOALS['branches']:.0f} % of the branches.

| folder | lines | of them run, % | branches | of them taken, % |
| --- | --: | --: | --: | --: |
{table}

{len(verdict.reasons)} lines are listed in `tests/coverage/uncovered.toml` as not run,
each with its reason. `scripts/coverage.sh` fails if a line does not run and is not on the list, or is on
the list and runs. `scripts/coverage.sh --html DIR` shows every line and branch.
"""
