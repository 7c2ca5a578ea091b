"""Every C++ file has the layout of clang-format 14. Other versions differ in details."""
import shutil
import subprocess

from tree import Finding

VERSION = "14"


def formatter():
    for name in (f"clang-format-{VERSION}", "clang-format"):
        path = shutil.which(name)
        if path is None:
            continue
        said = subprocess.run([path, "--version"], capture_output=True, text=True).stdout
        if f"version {VERSION}." in said:
            return path
    return None


def check(tree):
    program = formatter()
    for path in tree.cpp_files():
        run = subprocess.run([program, "--dry-run", "-Werror", str(tree.root / path)],
                             capture_output=True, text=True)
        line = 0
        if run.returncode and (first := run.stderr.split("\n")[0].split(":"))[1:2]:
            line = int(first[1]) if first[1].isdigit() else 0
        yield path, ([Finding(path, line, "differs from clang-format's layout")]
                     if run.returncode else [])
