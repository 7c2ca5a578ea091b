"""Each name in the last column of docs/glossary.md exists in the tree: a file, a folder or a name."""
import re

from tree import Finding

GLOSSARY = "docs/glossary.md"
FOLDERS = ("src/", "port/", "devkit/", "tests/", "docs/")
WORD = re.compile(r"\w+")


def named_in(line):
    """The names in the last column of a table's row."""
    cells = line.strip().strip("|").split("|")
    return re.findall(r"`([^`]+)`", cells[-1]) if len(cells) > 1 else []


def check(tree):
    if GLOSSARY not in tree.paths:
        return
    words = {w for p in tree.cpp_files() if p.startswith(FOLDERS) for w in WORD.findall(tree.text(p))}
    findings = []
    for number, line in enumerate(tree.text(GLOSSARY).split("\n"), 1):
        for name in named_in(line) if line.startswith("|") else []:
            is_path = any(p == name or p.startswith(name.rstrip("/") + "/") or p.endswith("/" + name)
                          for p in tree.paths)
            pattern = "*" in name and any(re.fullmatch(name.replace(".", r"\.").replace("*", ".*"),
                                                       p.rsplit("/", 1)[-1]) for p in tree.paths)
            if not is_path and not pattern and not set(WORD.findall(name)) <= words:
                findings.append(Finding(GLOSSARY, number, f"no such file or name: {name}"))
    yield GLOSSARY, findings
