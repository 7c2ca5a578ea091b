"""The native processes of this test bed that run Windows programs."""
import contextlib
import os
import pathlib
import re


def windows_processes(name, *words):
    """The ids of those that run a Windows program of that name, with these words among its arguments."""
    found = []
    wanted = {word.encode() for word in words}
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            said = (folder / "cmdline").read_bytes().split(b"\0")
            if re.split(rb"[\\/]", said[0])[-1] == name.encode() and wanted <= set(said) and in_this_bed(folder):
                found.append(int(folder.name))
    return found


def wine_server():
    """The id of the bed's Wine server, or None."""
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            if (folder / "comm").read_text().startswith("wineserver") and in_this_bed(folder):
                return int(folder.name)
    return None


def in_this_bed(folder):
    return os.readlink(folder / "ns/net") == os.readlink("/proc/self/ns/net")
