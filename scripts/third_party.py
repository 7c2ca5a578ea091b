#!/usr/bin/env python3
"""What the programs and the library contain of others, and THIRD-PARTY-NOTICES, which is made of it.

usage: third_party.py [--check]

Writes THIRD-PARTY-NOTICES from the packages' own copyright files. With --check it only says whether
the file is up to date: exit 1 if it is not, 77 if a package is not installed or of another version
of Debian than the one whose texts are in the file.
"""
import argparse
import dataclasses
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
FILE = "THIRD-PARTY-NOTICES"
DEBIAN = "12"


@dataclasses.dataclass(frozen=True)
class Component:
    name: str
    names_in_cmake: tuple  # how cmake/headers.cmake or a link line names it
    package: str  # Debian's, or npm's if it has an @
    license: str  # as SPDX writes it
    use: str
    link: str  # the relationship in the SBOM
    keep: str = r"\*|include/.*"  # which paragraphs of the copyright file concern what is contained


COMPONENTS = [
    Component("toml++", ("toml++",), "libtomlplusplus-dev", "MIT",
              "compiled into vyr_client and vyr_node", "STATIC_LINK"),
    Component("CLI11", ("CLI",), "libcli11-dev", "BSD-3-Clause",
              "compiled into vyr_client, vyr_node, vyr_game and vyr_setup", "STATIC_LINK"),
    Component("JSON for Modern C++", ("nlohmann",), "nlohmann-json3-dev", "MIT",
              "compiled into vyr_client, vyr_node, vyr_game and vyr_setup", "STATIC_LINK"),
    Component("Boost (Asio, Beast and what they use)", ("boost",), "libboost1.74-dev", "BSL-1.0",
              "compiled into vyr_client and vyr_node, which serve pages and figures over HTTP",
              "STATIC_LINK", r"\*"),
    Component("uPlot", ("uPlot",), "uplot@1.6.32", "MIT",
              "contained in vyr_client, and in each page that it writes", "CONTAINS"),
    Component("mingw-w64 runtime", ("mingwex",), "mingw-w64-common", "ZPL-2.1",
              "linked into the library and every program", "STATIC_LINK", r"\*|mingw-w64-crt/.*"),
    Component("GCC runtime libraries (libgcc, libstdc++)", ("gcc", "stdc++"),
              "gcc-mingw-w64-base", "GPL-3.0-or-later WITH GCC-exception-3.1",
              "linked into the library and every program", "STATIC_LINK"),
    Component("NSIS", ("nsis",), "nsis", "Zlib",
              "its start-up program and plug-ins are the installer's", "CONTAINS", r"\*|Source/.*"),
]
SYSTEM_LIBRARIES = {"ws2_32", "shlwapi", "rpcrt4", "advapi32", "shell32", "mswsock", "user32", "version"}


def version(component):
    """The version of the installed package, or None."""
    if "@" in component.package:
        return component.package.split("@")[1]
    asked = subprocess.run(["dpkg-query", "-W", "-f=${Version}", component.package],
                           capture_output=True, text=True)
    return asked.stdout.strip() or None if asked.returncode == 0 else None


def paragraphs(text):
    return [p.rstrip() for p in re.split(r"\n\s*\n", text) if p.strip()]


def field(paragraph, name):
    found = re.search(rf"^{name}:[ \t]*((?:.*)(?:\n[ \t]+.*)*)", paragraph, re.M)
    return found.group(1) if found else ""


def concerning(text, keep):
    """Of a copyright file in Debian's format, what says something about the files that match."""
    kept, licenses = [], set()
    sections = paragraphs(text)[1:]
    for section in sections:
        files = field(section, "Files").split()
        if any(re.fullmatch(keep, name) for name in files):
            kept.append(section)
            licenses |= set(re.split(r"\s+and\s+|\s+or\s+", field(section, "License").split("\n")[0]))
    for section in sections:
        if not field(section, "Files") and field(section, "License").split("\n")[0] in licenses:
            kept.append(section)
    return "\n\n".join(kept)


def gcc_text(text):
    """The paragraphs on the runtime libraries: what they are under, and the exception in full."""
    begin = text.index("GCC RUNTIME LIBRARY EXCEPTION")
    end = text.index("libquadmath/*", begin)
    start = text.index("GCC is Copyright")
    said = text[start : text.index("\n\n", text.index(" - libgcc", start))]
    return said + "\n\n" + text[begin:end].rstrip()


def text_of(component):
    if component.name == "uPlot":
        return (ROOT / "devkit/client/watch/chart_notice.txt").read_text(encoding="utf-8").strip()
    path = pathlib.Path("/usr/share/doc", component.package, "copyright")
    text = path.read_text(encoding="utf-8")
    if component.package.startswith("gcc"):
        return gcc_text(text)
    return concerning(text, component.keep)


def heading(component):
    return f"{component.name}: {component.license}"


def made():
    parts = ["THIRD-PARTY NOTICES\n\nThe library and the programs of this project contain the following "
             "work of others.\nscripts/third_party.py makes this file."]
    for component in COMPONENTS:
        line = "=" * 80
        parts.append(f"{line}\n{heading(component)}\n({component.use})\n{line}\n\n{text_of(component)}")
    text = "\n\n".join(parts)
    return "\n".join(line.rstrip() for line in text.split("\n")) + "\n"


def release_of_debian():
    try:
        text = pathlib.Path("/etc/os-release").read_text()
    except OSError:
        return None
    found = re.search(r'^VERSION_ID="?(\d+)', text, re.M)
    return found.group(1) if found and re.search(r"^ID=debian$", text, re.M) else None


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--check", action="store_true")
    check = parser.parse_args().check
    missing = [c.package for c in COMPONENTS if version(c) is None]
    if missing:
        print(f"third_party.py: not installed (run scripts/setup.sh): {' '.join(missing)}", file=sys.stderr)
        return 77 if check else 1
    if not check:
        (ROOT / FILE).write_text(made(), encoding="utf-8")
        return 0
    if release_of_debian() != DEBIAN:
        print(f"skipped: the texts are those of Debian {DEBIAN}")
        return 77
    if (ROOT / FILE).read_text(encoding="utf-8") != made():
        print(f"{FILE} is not what the packages say: run scripts/third_party.py", file=sys.stderr)
        return 1
    print("1 passed, 0 failed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
