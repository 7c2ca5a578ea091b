#!/usr/bin/env python3
"""Draws the picture of the architecture in README.md from the tree.

usage: draw_architecture.py [--check] [ROOT]

A box is a folder of src/, labelled with the text after the colon in the heading of its README. An
arrow means that files of one folder include files of the other; arrows that follow from others are
left out. The game is connected to the folders that define entries of Winsock's call table, the
client program to those that name a shared region. Replaces the text between the two marks in
README.md; with --check, only exits with 1 if that text differs from the drawing.
"""
import argparse
import pathlib
import re
import sys

BEGIN = "<!-- drawn by scripts/draw_architecture.py -->"
END = "<!-- end of the drawing -->"
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)"', re.MULTILINE)
HEADING = re.compile(r"^# [\w/]+: (.+)$", re.MULTILINE)
ENTRY = re.compile(r"\bWSPAPI WSP\w+\(")
REGION = re.compile(r'"vyr_\w+_shared?_mem"')


def folder_of(path):
    parts = path.split("/")
    return parts[1] if parts[0] == "src" and len(parts) > 2 else None


def read_folders(sources):
    """The folders of src/, each with the folders that it includes. sources: path -> text."""
    graph = {f: set() for f in map(folder_of, sources) if f}
    for path, text in sources.items():
        if (folder := folder_of(path)) and path.endswith((".h", ".cpp")):
            targets = {folder_of("src/" + t) for t in INCLUDE.findall(text) if "src/" + t in sources}
            graph[folder] |= targets - {folder, None}
    return graph


def reaches(graph, start, end, without):
    """Whether there is a path from start to end that does not begin with the arrow `without`."""
    seen, stack = {start}, [start]
    while stack:
        here = stack.pop()
        for there in graph[here]:
            if (here, there) == without or there in seen:
                continue
            if there == end:
                return True
            seen.add(there)
            stack.append(there)
    return False


def reduced(graph):
    """The arrows that do not follow from others. Arrows in a cycle are all kept."""
    left = {folder: set(targets) for folder, targets in graph.items()}
    for here in sorted(graph):
        for there in sorted(graph[here]):
            both_ways = reaches(graph, there, here, None)
            if not both_ways and reaches(left, here, there, (here, there)):
                left[here].discard(there)
    return left


def folders_with(pattern, sources, suffixes):
    return sorted({folder_of(p) for p, text in sources.items()
                   if folder_of(p) and p.endswith(suffixes) and pattern.search(text)})


def draw(sources):
    graph = read_folders(sources)
    lines = ["```mermaid", "flowchart TD", '  game(["the game"])', '  client(["client program"])',
             '  node(["node"])', '  subgraph library["the library, in the game\'s process"]']
    for folder in sorted(graph):
        heading = HEADING.search(sources.get(f"src/{folder}/README.md", ""))
        words = f"<br/>{heading[1]}" if heading else ""
        lines.append(f'    {folder}["<b>{folder}</b>{words}"]')
    lines.append("  end")
    lines += [f"  game -- socket calls --> {f}" for f in folders_with(ENTRY, sources, ".cpp")]
    arrows = reduced(graph)
    lines += [f"  {here} --> {there}" for here in sorted(graph) for there in sorted(arrows[here])]
    lines += [f"  {folder} <-. shared memory .-> client"
              for folder in folders_with(REGION, sources, (".h", ".cpp"))]
    lines += ["  library <== TCP and UDP ==> node", "```"]
    return "\n".join(lines)


def replaced(readme, drawing):
    """The README with the new drawing; None if it does not have the two marks."""
    if readme.count(BEGIN) != 1 or readme.count(END) != 1:
        return None
    before, rest = readme.split(BEGIN)
    return f"{before}{BEGIN}\n{drawing}\n{END}{rest.split(END, 1)[1]}"


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true", help="change nothing")
    parser.add_argument("root", nargs="?", default=pathlib.Path(__file__).resolve().parents[1],
                        type=pathlib.Path, metavar="ROOT")
    arguments = parser.parse_args()
    files = [p for p in (arguments.root / "src").rglob("*") if p.suffix in {".h", ".cpp", ".md"}]
    sources = {p.relative_to(arguments.root).as_posix(): p.read_text(encoding="utf-8",
                                                                     errors="surrogateescape")
               for p in files}
    readme = arguments.root / "README.md"
    old = readme.read_text(encoding="utf-8")
    new = replaced(old, draw(sources))
    if new is None:
        print(f"{readme}: has no marks for the drawing", file=sys.stderr)
        return 1
    if arguments.check:
        return 0 if new == old else 1
    readme.write_text(new, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
