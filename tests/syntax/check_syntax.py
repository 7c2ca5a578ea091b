#!/usr/bin/env python3
"""The syntax of what only Windows can run: PowerShell scripts and workflows.

usage: check_syntax.py

Exit code 77 where the parsers are not there and cannot be fetched.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
import javascript  # noqa: E402

TIMEOUT_S = 240  # a grammar takes most of a minute to load on a busy machine
SHELLS = ("pwsh", "powershell")


def parse(folder, asked):
    """asked: (kind, text). Returns what is wrong in each."""
    questions = [{"kind": kind, "text": text} for kind, text in asked]
    return javascript.ask(ROOT / "tests/syntax/parse.js", questions, folder, timeout_s=TIMEOUT_S)


def steps_of(workflow):
    """The scripts of its steps that PowerShell runs. An expression stands for a word."""
    for step in re.split(r"^ *- (?=\w+:)", workflow, flags=re.M)[1:]:
        shell = re.search(r"^ *shell: *(\w+)", step, re.M)
        script = re.search(r"^( *)run: \|\n((?:\1 +.*\n|\s*\n)+)", step, re.M)
        if shell and shell.group(1) in SHELLS and script:
            yield re.sub(r"\$\{\{.*?\}\}", "word", script.group(2))


def damaged(kind, text):
    """The text with something wrong in it, in several ways."""
    if kind == "workflow":
        yield "its steps named otherwise", text.replace("steps:", "stops:", 1)
        yield "no runner", re.sub(r"^ *runs-on:.*\n", "", text, count=1, flags=re.M)
        yield "no YAML", text.replace("jobs:", "jobs: {", 1)
        return
    yield "one more brace", text + "}\n"
    yield "one more parenthesis", text + "(\n"
    yield "a text without its end", text + "$last = 'begun\n"
    yield "a condition without its block", text + "if ($last)\n"


def main():
    parsers = javascript.parts_or_skip("syntax")
    asked, names = [], []
    scripts = sorted(path for path in (ROOT / "tools").rglob("*.ps1"))
    workflows = sorted((ROOT / ".github/workflows").glob("*.yml"))
    for kind, paths in (("powershell", scripts), ("workflow", workflows)):
        for path in paths:
            text = path.read_text(encoding="utf-8")
            asked.append((kind, text))
            names.append(path.name)
            for number, step in enumerate(steps_of(text) if kind == "workflow" else (), 1):
                asked.append(("powershell", step))
                names.append(f"{path.name}, PowerShell step {number}")
    wrong = [f"{name}: {line}" for name, lines in zip(names, parse(parsers, asked)) for line in lines]
    # Windows PowerShell reads a script without a mark at its beginning in the machine's own encoding.
    wrong += [f"{path.name} is not plain ASCII" for path in scripts if not path.read_bytes().isascii()]
    if len(names) < 5:
        wrong.append(f"only {names} were found")
    broken = [(name, how, kind, text) for name, (kind, whole) in zip(names, asked) for how, text in damaged(kind, whole)]
    found = parse(parsers, [(kind, text) for *_, kind, text in broken])
    wrong += [f"{name}: {how} is not noticed" for (name, how, *_), lines in zip(broken, found) if not lines]
    for line in wrong:
        print(f"FAILED: {line}")
    print(f"{len(asked) + len(broken) - len(wrong)} passed, {len(wrong)} failed")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
