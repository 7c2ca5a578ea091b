"""Warns of long files, which may contain more than one idea. Some tables are long, too."""
from tree import Finding

MOST_LINES = {"src/": 300, "port/": 500, "devkit/": 500, "tests/": 700}


def check(tree):
    for folder, most in MOST_LINES.items():
        for path in tree.cpp_files(folder):
            lines = tree.text(path).count("\n")
            yield path, ([Finding(path, 0, f"has {lines} lines, more than {most}", warning=True)]
                         if lines > most else [])
