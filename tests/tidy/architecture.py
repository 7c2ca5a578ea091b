"""The picture of the architecture in README.md agrees with the tree."""
import pathlib
import sys

from tree import Finding

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import draw_architecture  # noqa: E402

README = "README.md"


def check(tree):
    if README not in tree.paths or draw_architecture.BEGIN not in tree.text(README):
        return
    sources = {p: tree.text(p) for p in tree.paths
               if p.startswith("src/") and p.endswith((".h", ".cpp", ".md"))}
    drawn = draw_architecture.replaced(tree.text(README), draw_architecture.draw(sources))
    current = drawn == tree.text(README)
    yield README, [] if current else [Finding(
        README, 0, "its picture differs from the tree: run scripts/draw_architecture.py")]
