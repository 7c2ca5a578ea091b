"""A workflow cannot be run here: so at least what it names exists, it begins by saying so, and it is YAML."""
import json
import re

from tree import Finding

FOLDER = ".github/workflows/"
PATHS = r"(?<![\w/.$\\{}-])((?:scripts|tests|tools|packaging|cmake)/[\w./-]+|\./[\w-]+\.sh)"


def presets(tree):
    if "CMakePresets.json" not in tree.paths:
        return set()
    return {preset["name"] for preset in json.loads(tree.text("CMakePresets.json"))["configurePresets"]}


def targets(tree):
    made = r"(?:add_(?:library|executable|custom_target)|vyr_add_module|probe_program)" \
           r"\(\s*([\w-]+)"
    names = set()
    for path in tree.paths:
        if path.endswith(("CMakeLists.txt", ".cmake")):
            names |= set(re.findall(made, tree.text(path)))
            names |= {f"{suite}_tests" for suite in re.findall(r"vyr_test_suite\(\s*([\w-]+)", tree.text(path))}
    return names


def unreadable(text):
    """Why it is no YAML; nothing if it is, or where Python cannot read any."""
    try:
        import yaml
    except ImportError:
        return "has a tab, which YAML does not indent with" if re.search(r"^\s*\t", text, re.M) else None
    try:
        loaded = yaml.safe_load(text)
    except yaml.YAMLError as error:
        return f"is no YAML: {error}"
    jobs = loaded.get("jobs") if isinstance(loaded, dict) else None
    return None if jobs and all("steps" in job for job in jobs.values()) else "has no jobs with steps"


def missing(tree, path):
    text = tree.text(path)
    first = text.split("\n", 1)[0]
    if not first.startswith("#") or "cannot be run here" not in first:
        yield "does not begin by saying that it cannot be run here"
    problem = unreadable(text)
    if problem:
        yield problem
    for name in re.findall(r"--preset[ =]([\w-]+)", text):
        if name not in presets(tree):
            yield f"names the preset {name}, which does not exist"
    for words in re.findall(r"--target((?: [\w-]+)+)", text):
        for name in words.split():
            if name.startswith("-"):
                break
            if name not in targets(tree):
                yield f"names the target {name}, which does not exist"
    for name in re.findall(PATHS, text):
        name = name.removeprefix("./").rstrip(".")
        if name not in tree.paths and not any(p.startswith(name.rstrip("/") + "/") for p in tree.paths):
            yield f"names {name}, which does not exist"


def check(tree):
    for path in tree.paths:
        if path.startswith(FOLDER):
            yield path, [Finding(path, 0, message) for message in missing(tree, path)]
