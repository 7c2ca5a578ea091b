"""Each folder of code says in one paragraph what it is."""
import re

from tree import Finding

ROOTS = ["src", "port", "devkit"]
LEAST_WORDS = 20


def paragraphs(text):
    return [p for p in re.split(r"\n\s*\n", text.strip()) if p and not p.startswith("#")]


def check(tree):
    folders = {"/".join(p.split("/")[:depth]) for p in tree.paths for depth in (1, 2)
               if p.count("/") >= depth and p.split("/")[0] in ROOTS}
    for folder in sorted(folders):
        path = folder + "/README.md"
        if path not in tree.paths:
            yield path, [Finding(path, 0, "is missing: what does this folder own, what may it "
                                          "include, what must it not know?")]
            continue
        found = paragraphs(tree.text(path))
        findings = []
        # The three roots may say more.
        if len(found) != 1 and folder not in ROOTS:
            findings.append(Finding(path, 0, f"has {len(found)} paragraphs instead of one"))
        if not found or len(found[0].split()) < LEAST_WORDS:
            findings.append(Finding(path, 0, "says too little"))
        yield path, findings
