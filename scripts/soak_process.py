"""What the system says of a process from outside: descriptors, threads, memory, processor time."""
import os
import pathlib
import time

TICKS = os.sysconf("SC_CLK_TCK")


class Process:
    """ProcessLookupError or FileNotFoundError once it has ended."""

    def __init__(self, pid):
        self.pid, self.folder = pid, pathlib.Path("/proc") / str(pid)
        self.used, self.used_at = None, 0.0

    def sample(self):
        """Without `processor`, which needs two looks, at the first one."""
        status = dict(line.split(":", 1) for line in (self.folder / "status").read_text().splitlines())
        found = {"descriptors": len(os.listdir(self.folder / "fd")), "threads": int(status["Threads"]),
                 "memory": int(status["RssAnon"].split()[0])}
        fields = (self.folder / "stat").read_text().rsplit(")", 1)[1].split()
        used, now = (int(fields[11]) + int(fields[12])) / TICKS, time.monotonic()
        if self.used is not None:
            found["processor"] = round(100 * (used - self.used) / (now - self.used_at), 2)
        self.used, self.used_at = used, now
        return found

    def lives(self):
        try:
            return (self.folder / "stat").read_text().rsplit(")", 1)[1].split()[0] not in "ZX"
        except OSError:
            return False

    def mappings(self):
        return (self.folder / "maps").read_bytes().count(b"\n")
