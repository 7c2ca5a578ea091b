"""Each folder has a README that describes it; in the folders of src, port and devkit in one paragraph."""
import re

from tree import Finding

ROOTS = ["src", "port", "devkit"]  # READMEs of their folders have one paragraph
DATA = ("fuzz/corpus/",)
LEAST_WORDS = 20


def paragraphs(text):
    return [p for p in re.split(r"\n\s*\n", text.strip()) if p and not p.startswith("#")]


def folders_of(paths):
    folders = {p.rsplit("/", 1)[0] for p in paths if "/" in p and not p.startswith(DATA)}
    above = {f.rsplit("/", n)[0] for f in folders for n in range(1, f.count("/") + 1)}
    return {f for f in folders | above if not f.startswith(".")}


def check(tree):
    folders = folders_of(tree.paths)
    for folder in sorted(folders):
        path = folder + "/README.md"
        if path not in tree.paths:
            yield path, [Finding(path, 0, "is missing: what does this folder own, what may it "
                                          "include, what must it not know?")]
            continue
        found = paragraphs(tree.text(path))
        findings = []
        # The three roots themselves may say more.
        if len(found) != 1 and folder not in ROOTS and folder.split("/")[0] in ROOTS:
            findings.append(Finding(path, 0, f"has {len(found)} paragraphs instead of one"))
        if not found or len(found[0].split()) < LEAST_WORDS:
            findings.append(Finding(path, 0, "says too little"))
        yield path, findings
