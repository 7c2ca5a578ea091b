"""docs/swarm.md: what of src/ the random worlds of the swarm never reach."""

import document
import sources

MOST_SHOWN = 8  # of a function's conditions


def functions_of(file):
    """(first line, last line, name) of each function that has code."""
    return [span for span in sources.spans("\n".join(file.source))
            if any(number in file.lines for number in range(span[0], span[1] + 1))]  # fmt: skip


def lines_in(file, span):
    return [number for number in range(span[0], span[1] + 1) if number in file.lines]


def is_entered(file, span):
    return any(file.lines[number] for number in lines_in(file, span))


def untaken(file, span):
    """In words, each condition in there of which a side was never taken."""
    inside = [place for place in sorted(file.branches) if span[0] <= place[0] <= span[1]]
    lines = [line for line, _ in inside]
    for line, column in inside:
        yes, no = file.branches[line, column]
        if not (yes and no):
            place = f"{line}:{column}" if lines.count(line) > 1 else f"{line}"
            yield f"{place} {'true' if no else 'false' if yes else 'asked'}"


def unlisted(path, file, entries):
    """The lines that did not run here, but do in some other test."""
    listed = {entry.place() for entry in entries}
    return {number for number in file.uncovered()
            if (path, file.functions.get(number, ""), file.source[number - 1].strip()) not in listed}  # fmt: skip


def ranges(numbers):
    """Line numbers in few words: 3, 5-7."""
    spans = []
    for number in sorted(numbers):
        if spans and spans[-1][1] == number - 1:
            spans[-1][1] = number
        else:
            spans.append([number, number])
    return ", ".join(str(first) if first == last else f"{first}-{last}" for first, last in spans)


def shortened(words):
    more = len(words) - MOST_SHOWN
    return ", ".join(words[:MOST_SHOWN]) + (f" and {more} more" if more > 0 else "")


def table(files):
    rows = []
    for folder, sums in [*document.by_folder(files).items(), ("**all**", document.add_up(list(files.values())))]:
        members = [file for path, file in files.items() if folder in ("**all**", path.rsplit("/", 1)[0])]
        spans = [(file, span) for file in members for span in functions_of(file)]
        never = sum(not is_entered(file, span) for file, span in spans)
        rows.append(f"| {folder} | {sums['lines']:,} | {sums['line_share']:.2f} | {sums['branches']:,} | "
                    f"{sums['branch_share']:.2f} | {len(spans):,} | {never:,} |")  # fmt: skip
    return "\n".join(rows)


def never_entered(files, entries):
    for path, file in files.items():
        known = unlisted(path, file, entries)
        spans = [span for span in functions_of(file)
                 if not is_entered(file, span) and known.intersection(lines_in(file, span))]  # fmt: skip
        if spans:
            yield f"- `{path}`: " + ", ".join(f"`{name or 'unnamed'}` ({first})" for first, _, name in spans)


def never_taken(files, entries):
    for path, file in files.items():
        known = unlisted(path, file, entries)
        for span in functions_of(file):
            lines, conditions = known.intersection(lines_in(file, span)), list(untaken(file, span))
            if is_entered(file, span) and (lines or conditions):
                yield f"| `{path}:{span[0]}` | `{span[2] or 'unnamed'}` | {ranges(lines)} | {shortened(conditions)} |"


def markdown(files, entries, seeds, place):
    newline = "\n"
    return f"""<!-- Made by scripts/coverage.sh --only swarm --keep from tests/coverage/swarm.py: change that. -->
# What the swarm never reaches

The swarm (`tests/scenario/whole_swarm_test.cpp`, `scripts/swarm.sh`) is one game that does everything at
once while anything may fail. What it never reaches is held by single tests alone, and by no random order
of events. This is what {seeds:,} of its worlds did not run of `src/`. `tests/coverage/README.md` says how it
is counted, and `tests/scenario/README.md` how to read this.

Measured on {place} with `scripts/coverage.sh --only swarm --seeds {seeds} --keep`.

| folder | lines | of them run, % | branches | of them taken, % | functions | never entered |
| --- | --: | --: | --: | --: | --: | --: |
{table(files)}

## Functions that are never entered
With the line at which each begins.

{newline.join(never_entered(files, entries)) or "None."}

## What is never reached in the others
The lines that never ran, and each condition, by its line, with what it never was: true, false, or asked at
all. Where a line has several, the column follows. Lines that no test reaches
(`tests/coverage/uncovered.toml`) are left out.

| begins at | function | never ran | was never |
| --- | --- | --- | --- |
{newline.join(never_taken(files, entries))}
"""
