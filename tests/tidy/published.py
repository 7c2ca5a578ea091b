"""What is published for other languages is what the script makes of the records in src/, and docs/regions.md
has a row for each region, with its mutex, its size and its record."""
import pathlib
import re
import sys

from tree import Finding

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import make_regions_header  # noqa: E402


DOCUMENT = "docs/regions.md"


def rows_of_regions(formats):
    """The cells that each row must have: mapping, mutex, bytes, and for reports the slots."""
    texts = {item[1]: item[2] for item in formats.items if item[0] == "text"}
    for name, mapping in texts.items():
        if name.endswith("RegionName"):
            size = formats.records[name[1:-len("Name")]].size
            if name == "kRouteRegionName":  # double-buffered
                size = 4 + 2 * size
            yield mapping, texts[name.replace("RegionName", "MutexName")], str(size)
    for item in formats.items:
        if item[0] == "channel":
            _, _, mapping, mutex, size, slots, slot_size = item
            yield mapping, mutex, size, f"{slots} of {slot_size}"


def missing_rows(tree, formats):
    rows = [tuple(cell.strip("` ") for cell in line.strip("| ").split("|"))
            for line in tree.text(DOCUMENT).split("\n") if re.match(r"\| `vyr_", line)]
    for wanted in rows_of_regions(formats):
        if not any(row[:len(wanted)] == wanted for row in rows):
            yield Finding(DOCUMENT, 0, f"has no row that begins with {', '.join(wanted)}")


def check(tree):
    if not all(path in tree.paths for path in make_regions_header.FILES):
        return
    for path, text in make_regions_header.made(tree.text).items():
        same = path in tree.paths and tree.text(path) == text
        yield path, [] if same else [Finding(
            path, 0, "differs from the records in src/: run scripts/make_regions_header.py")]
    if DOCUMENT in tree.paths:
        formats = make_regions_header.Formats(
            {path: tree.text(path) for path in make_regions_header.FILES})
        yield DOCUMENT, list(missing_rows(tree, formats))
