"""Everything of others that is linked or embedded has its notice: what cmake/headers.cmake stages, what a link
line names, and what the table in scripts/third_party.py lists."""
import pathlib
import re
import sys

from tree import Finding

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import third_party  # noqa: E402

HEADERS = "cmake/headers.cmake"
SHIPPED = ("src/", "devkit/", "examples/", "cmake/")
OF_TESTS = {"cmake/gtest.cmake"}  # linked into no program that is shipped
SCOPES = {"PRIVATE", "PUBLIC", "INTERFACE"}


def staged(text):
    """What is taken from the system's headers."""
    names = re.findall(r"/usr/include/([\w.+-]+)", text)
    for words in re.findall(r"foreach\(name ([^)]*)\)", text):
        names += words.split()
    return names


def own_targets(tree):
    for path in tree.paths:
        if path.endswith(("CMakeLists.txt", ".cmake")):
            yield from re.findall(r"add_(?:library|executable)\(\s*([\w-]+)", tree.text(path))


def linked(text):
    for words in re.findall(r"target_link_libraries\(([^)]*)\)", text):
        target, *names = words.split()
        yield from (n for n in names if n not in SCOPES and "$" not in n)


def check(tree):
    if third_party.FILE not in tree.paths:
        return
    notices = tree.text(third_party.FILE)
    known = {name for component in third_party.COMPONENTS for name in component.names_in_cmake}
    findings = [Finding(third_party.FILE, 0, f"has no notice of {component.name}: run scripts/third_party.py")
                for component in third_party.COMPONENTS
                if f"\n{third_party.heading(component)}\n" not in notices]
    yield third_party.FILE, findings
    ours = set(own_targets(tree)) | {"port"}
    for path in tree.paths:
        if path in OF_TESTS or not path.startswith(SHIPPED) or not path.endswith(("CMakeLists.txt", ".cmake")):
            continue
        named = list(linked(tree.text(path))) + (staged(tree.text(path)) if path == HEADERS else [])
        yield path, [Finding(path, 0, f"names {name}, which scripts/third_party.py does not list")
                     for name in named if name not in known | ours | third_party.SYSTEM_LIBRARIES]
