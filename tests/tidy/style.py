"""Every C++ file has the layout of clang-format 14. Other versions differ in details."""
import re
import shutil
import subprocess

from tree import Finding

VERSION = "14"
AT_ONCE = 200  # files


def formatter():
    for name in (f"clang-format-{VERSION}", "clang-format"):
        path = shutil.which(name)
        if path is None:
            continue
        said = subprocess.run([path, "--version"], capture_output=True, text=True).stdout
        if f"version {VERSION}." in said:
            return path
    return None


def first_differences(tree, paths):
    """The first line of each file that the formatter would change. One run for many files: it takes longer to
    start than to read one."""
    run = subprocess.run([formatter(), "--dry-run", "-Werror", *paths], cwd=tree.root, capture_output=True, text=True)
    lines = {}
    for path, line in re.findall(r"^(.+?):(\d+):\d+: error: ", run.stderr, re.MULTILINE):
        lines.setdefault(path, int(line))
    if run.returncode and not lines:
        raise RuntimeError(run.stderr)
    return lines


def check(tree):
    paths = [str(path) for path in tree.cpp_files()]
    lines = {}
    for start in range(0, len(paths), AT_ONCE):
        lines |= first_differences(tree, paths[start : start + AT_ONCE])
    for path in tree.cpp_files():
        line = lines.get(str(path))
        yield path, [Finding(path, line, "differs from clang-format's layout")] if line else []
