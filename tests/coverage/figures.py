"""What ran of each file of src/: its lines and branches, from llvm-cov's export."""

import bisect
import dataclasses

import measure
import sources


@dataclasses.dataclass
class File:
    source: list  # its lines
    lines: dict  # number of a line with code -> how often it ran
    parts: dict  # number of a line that ran -> columns of its parts that did not
    branches: dict  # (line, column) of a condition -> how often it was true, and false
    functions: dict  # number of a line -> the function that it is in

    def uncovered(self):
        return [number for number, count in sorted(self.lines.items()) if count == 0]

    def ran(self):
        return len(self.lines) - len(self.uncovered())

    def branch_count(self):
        return 2 * len(self.branches)

    def branches_taken(self):
        return sum((yes > 0) + (no > 0) for yes, no in self.branches.values())

    def notes(self, number):
        """What did not run of a line, in words."""
        if self.lines.get(number) == 0:
            return ["never runs"]
        said = [f"from column {column} on it never runs" for column in self.parts.get(number, [])]
        for (line, column), (yes, no) in sorted(self.branches.items()):
            if line == number and not (yes and no):
                said.append(f"condition at column {column} is never " +
                            ("asked" if not yes and not no else "false" if yes else "true"))  # fmt: skip
        return said


def lines_of(segments):
    """How often each line ran: the most of its parts, and what reaches into it. Also the parts that
    did not run, of lines that did.

    A segment is [line, column, count, has a count, begins a part, is a gap between parts]."""
    by_line = {}
    for segment in segments:
        by_line.setdefault(segment[0], []).append(segment)
    counts, parts, reaching = {}, {}, None
    last = max(by_line, default=0)
    for line in range(1, last + 1):
        here = by_line.get(line, [])
        begun = [s for s in here if s[3] and s[4] and not s[5]]
        skipped = here and not here[0][3] and here[0][4]
        if not skipped and ((reaching and reaching[3]) or begun):
            counts[line] = max([reaching[2] if reaching and reaching[3] else 0, *(s[2] for s in begun)])
            unrun = [s[1] for s in begun if s[2] == 0]
            if counts[line] and unrun:
                parts[line] = unrun
        if here:
            reaching = here[-1]
    return counts, parts


def count_at(segments, starts, place):
    """How often the part of the source that has this place ran."""
    at = bisect.bisect_right(starts, place) - 1
    return segments[at][2] if at >= 0 and segments[at][3] else 0


def branches_of(exported):
    """Adds up what the copies of a template or an inline function have counted. A condition that is
    known to the compiler counts neither way, though it is passed, and is left out."""
    segments = exported["segments"]
    starts = [(s[0], s[1]) for s in segments]
    sums = {}
    for line, column, _, _, yes, no, *_ in exported.get("branches", []):
        before = sums.get((line, column), (0, 0))
        sums[line, column] = (before[0] + yes, before[1] + no)
    return {place: sides for place, sides in sums.items()
            if any(sides) or not count_at(segments, starts, place)}  # fmt: skip


def read(export, tree):
    """The files of src/ by their paths in the tree."""
    files = {}
    for exported in export["data"][0]["files"]:
        path = measure.relative(exported["filename"], tree)
        if not path:
            continue
        text = (tree / path).read_text()
        source = text.split("\n")
        counts, parts = lines_of(exported["segments"])
        lines = {n: count for n, count in counts.items() if n <= len(source) and sources.says_something(source[n - 1])}
        files[path] = File(source, lines, {n: p for n, p in parts.items() if n in lines}, branches_of(exported),
                           sources.functions(text))  # fmt: skip
    return dict(sorted(files.items()))
