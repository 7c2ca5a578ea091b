#!/usr/bin/env python3
"""Whether two builds of the same sources are the same byte for byte.

usage: check_reproducible.py [--kind x86|x64] [--library | --full]

Builds in two folders whose paths differ in length, with different time zones, file modes and numbers
of jobs, and compares what comes out. By default that is vyr_run and its two DLLs, before and after
their symbols have been moved out; with --library also the library, which takes many minutes the first
time; with --full it is all that scripts/release.sh makes.

Each folder has its own part of the compiler cache. So an object that the cache returns has been
compiled in that very folder at some time, and never in the other one.
"""
import argparse
import fcntl
import os
import pathlib
import re
import shutil
import subprocess
import sys

import release_parts

ROOT = release_parts.ROOT
CACHE = pathlib.Path(os.environ.get("XDG_CACHE_HOME") or pathlib.Path.home() / ".cache", "vyr", "reproducible")
MODULES = {"vyr_run": "bin/vyr_run{}.exe", "winsock_host": "bin/winsock_host{}.dll",
           "winsock_base": "bin/winsock_base{}.dll"}
LIBRARY = {"vyr_lsp": "bin/vyr_lsp{}.dll"}
SUFFIXES = {"x86": "", "x64": "64"}


class Side:
    """A copy of the sources, and the circumstances of its build."""

    def __init__(self, name, jobs, zone, umask):
        self.folder = CACHE / name
        self.environment = {
            **os.environ, "TZ": zone, "CCACHE_NAMESPACE": f"vyr-{name.replace('/', '-')}",
            "CMAKE_BUILD_PARALLEL_LEVEL": str(jobs), "SOURCE_DATE_EPOCH": "1700000000",
            "VYR_COMMIT": "0" * 40,
        }  # fmt: skip
        self.umask = umask

    def run(self, *command):
        done = subprocess.run(list(map(str, command)), cwd=self.folder, env=self.environment, umask=self.umask,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if done.returncode != 0:
            raise release_parts.Problem(f"in {self.folder}: {' '.join(map(str, command))}\n"
                                        + "\n".join(done.stdout.splitlines()[-25:]))

    def take_sources(self):
        """Exactly the files of the tree; one that has not changed keeps its time."""
        listed = subprocess.run(["git", "-C", ROOT, "ls-files", "-z", "-co", "--exclude-standard"],
                                capture_output=True, check=True).stdout.decode()
        wanted = {name for name in listed.split("\0") if name and (ROOT / name).is_file()}
        self.folder.mkdir(parents=True, exist_ok=True)
        shutil.rmtree(self.folder / "build", ignore_errors=True)
        for name, path in release_parts.files_of(self.folder):
            if name not in wanted:
                path.unlink()
        for name in wanted:
            source, target = ROOT / name, self.folder / name
            if not target.exists() or target.read_bytes() != source.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(source, target)

    def build(self, kind, modules):
        """The modules of one kind by name, with their symbols and without."""
        preset = f"release-{kind}"
        self.run("cmake", "--preset", preset)
        self.run("cmake", "--build", "--preset", preset, "--target", *modules)
        stage, symbols = self.folder / "build/stage", self.folder / "build/symbols"
        stage.mkdir()
        made = {}
        for name in modules.values():
            path = self.folder / "build" / preset / name.format(SUFFIXES[kind])
            made[path.name + " with symbols"] = path.read_bytes()
            shutil.copy(path, stage)
        self.run(sys.executable, "-B", "scripts/release_parts.py", "split", stage, symbols)
        self.run(sys.executable, "-B", "scripts/release_parts.py", "zip", stage, self.folder / "build/stage.zip", "vyr")
        made["stage.zip"] = (self.folder / "build/stage.zip").read_bytes()
        made |= {name: path.read_bytes() for place in (stage, symbols)
                 for name, path in release_parts.files_of(place)}
        return made

    def release(self):
        self.run("scripts/release.sh", "--no-setup", "--out", "build/release")
        return {name: path.read_bytes() for name, path in release_parts.files_of(self.folder / "build/release")}


def differences(one, other):
    for name in sorted(one.keys() | other.keys()):
        first, second = one.get(name), other.get(name)
        if first is None or second is None:
            yield f"{name} is made in one folder only"
        elif first != second:
            at = next((n for n, (a, b) in enumerate(zip(first, second)) if a != b), min(len(first), len(second)))
            yield f"{name} differs: {len(first)} and {len(second)} bytes, first at {at:#x}"


def tells_its_folder(made, sides):
    for name, data in made.items():
        for path in {str(ROOT), str(CACHE), *(str(side.folder) for side in sides)}:
            if path.encode() in data:
                yield f"{name} contains the path {path}"


def symbols_that_fail(side, kind):
    """An address of a stripped module leads through its build id to the line of an export."""
    library = side.folder / "build/stage" / f"winsock_base{SUFFIXES[kind]}.dll"
    identity = release_parts.build_id(library)
    symbols = side.folder / "build/symbols/.build-id" / identity[:2] / f"{identity[2:]}.debug"
    tool = release_parts.TOOLS[release_parts.machine_of(library)]
    names = subprocess.run([tool + "nm", symbols], capture_output=True, text=True, check=True).stdout
    address = re.search(r"^([0-9a-f]+) T _?WSPStartup", names, re.M).group(1)
    said = subprocess.run([tool + "addr2line", "-f", "-e", symbols, "0x" + address],
                          capture_output=True, text=True, check=True).stdout
    if not re.search(r"devkit/winsock_host/base_provider\.cpp:[1-9]", said):
        yield f"the symbols do not know where WSPStartup is: {said}"
    headers = subprocess.run([tool + "objdump", "-ph", library], capture_output=True, text=True, check=True).stdout
    if f"signature {identity} " not in headers:
        yield f"objdump does not name the build id {identity}"
    if ".debug_info" in headers or ".gnu_debuglink" not in headers:
        yield f"{library.name} has debug symbols itself, or no link to them"


def is_repository():
    return subprocess.run(["git", "-C", ROOT, "rev-parse"], capture_output=True).returncode == 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kind", choices=SUFFIXES, default="x86")
    parser.add_argument("--library", action="store_true", help="the library, too")
    parser.add_argument("--full", action="store_true", help="all that scripts/release.sh makes; takes long")
    arguments = parser.parse_args()
    if not is_repository():
        print("skipped: this is no git repository, which would say what the sources are")
        return 77
    modules = MODULES | (LIBRARY if arguments.library else {})
    sides = [Side("one", 2, "UTC", 0o022), Side("another/of-a-longer-name", 1, "Pacific/Auckland", 0o077)]
    CACHE.mkdir(parents=True, exist_ok=True)
    with open(CACHE / ".lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        for side in sides:
            side.take_sources()
        made = [side.release() if arguments.full else side.build(arguments.kind, modules) for side in sides]
        wrong = list(differences(*made))
        if not arguments.full:
            wrong += [*tells_its_folder(made[0], sides), *symbols_that_fail(sides[0], arguments.kind)]
        for side in sides if not wrong else ():
            shutil.rmtree(side.folder / "build")
    for line in wrong:
        print(f"FAILED: {line}")
    print(f"{max(len(made[0]) - len(wrong), 0)} passed, {len(wrong)} failed")
    return 1 if wrong else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (release_parts.Problem, OSError, subprocess.CalledProcessError) as problem:
        print(f"check_reproducible.py: {problem}", file=sys.stderr)
        sys.exit(1)
