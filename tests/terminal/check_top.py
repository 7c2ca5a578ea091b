#!/usr/bin/env python3
"""Runs `vyr_client watch --top` in pseudo terminals and looks at what stands on their screens.

usage: check_top.py VYR_CLIENT

Exit code 77 where there is no terminal emulator (python3-pyte).
"""
import fcntl
import json
import os
import pathlib
import select
import signal
import struct
import subprocess
import sys
import termios
import time

SYSTEM_PYTHON = "/usr/bin/python3"
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "page"))
import sample_run  # noqa: E402
from checks import Checks  # noqa: E402

try:
    from watched import WatchedScreen  # noqa: E402
except ModuleNotFoundError:
    # The system's packages are those of the system's Python, which need not be the first one here.
    if sys.executable != SYSTEM_PYTHON and os.access(SYSTEM_PYTHON, os.X_OK):
        os.execv(SYSTEM_PYTHON, [SYSTEM_PYTHON, "-B", *sys.argv])
    print("skipped: no python3-pyte here")
    sys.exit(77)

TIMEOUT_S = 30  # for what takes a second at most
FLOWS = 30


def flow(number, name="node-7", life=5000):
    port = 7000 + number
    decision = sample_run.decision(1000, 100 + number, port, 0, node=7)
    decision["selected_proxy"]["proxy_name"] = name
    return [decision, sample_run.traffic(6000, 100 + number, port, 7, life, (25, 60, 9, 3, 19, 20))]


class Top:
    """The program in a terminal of its own, whose screen is updated during waits."""

    def __init__(self, program, columns, rows, term="xterm-256color"):
        self.screen = WatchedScreen(columns, rows)
        self.master, slave = os.openpty()
        self.set_size(columns, rows)
        source, self.reports = os.pipe()
        environment = {**os.environ, "TERM": term}
        environment.pop("COLUMNS", None)
        self.process = subprocess.Popen(
            [program, "watch", "--from", f"/dev/fd/{source}", "--top"], stdin=slave, stdout=slave,
            stderr=slave, pass_fds=[source], env=environment, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))
        os.close(slave)
        os.close(source)

    def set_size(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def resize(self, columns, rows):
        self.set_size(columns, rows)
        self.screen.set_size(columns, rows)

    def report(self, lines):
        os.write(self.reports, "".join(json.dumps(line) + "\n" for line in lines).encode())

    def read(self, deadline):
        """Reads what was written. False once nothing can be written there any more."""
        ready, _, _ = select.select([self.master], [], [], max(0, deadline - time.monotonic()))
        if not ready:
            return True
        try:
            data = os.read(self.master, 65536)
        except OSError:
            return False
        self.screen.feed(data)
        return bool(data)

    def wait_for(self, condition):
        deadline = time.monotonic() + TIMEOUT_S
        while not condition() and time.monotonic() < deadline:
            if not self.read(deadline):
                break
        return condition()

    def shows(self, *texts):
        shown = "\n".join(self.screen.shown())
        return not self.screen.disturbed and all(text in shown for text in texts)

    def end(self):
        deadline = time.monotonic() + TIMEOUT_S
        while time.monotonic() < deadline and self.read(deadline):
            pass
        if self.process.poll() is None:
            try:
                self.process.wait(TIMEOUT_S)
            except subprocess.TimeoutExpired:
                self.process.kill()
        os.close(self.reports)
        os.close(self.master)
        return self.process.wait()


def check_size(checks, program, columns, rows, other):
    top = Top(program, columns, rows)
    size = f"{columns}x{rows}"
    checks.that(top.wait_for(lambda: top.shows("0 flows")), f"{size}: an empty table is drawn")
    for mode, wanted in (("alternate", True), ("cursor", False)):
        checks.that(top.screen.modes[mode] == wanted, f"{size}: {mode} is {wanted}")
    top.report(sum((flow(i) for i in range(FLOWS)), []))
    for new_columns, new_rows in ((columns, rows), other, (columns, rows)):
        size = f"{new_columns}x{new_rows}"
        if (new_columns, new_rows) != (top.screen.columns, top.screen.lines):
            top.resize(new_columns, new_rows)
        hidden = max(0, FLOWS + 2 - new_rows)
        wanted = [f"{FLOWS} flows", "GAME SERVER", "198.51.100.10:7000"]
        wanted.append(f"… {hidden + 1} more" if hidden else f"198.51.100.10:{6999 + FLOWS}")
        checks.that(top.wait_for(lambda: top.shows(*wanted)), f"{size}: the flows are shown",
                    top.screen.shown())
        lines = [line for line in top.screen.shown() if line]
        checks.that(len(lines) == min(new_rows, FLOWS + 2), f"{size}: as many rows as fit", lines)
        checks.that(all(line.startswith("198.51.100.10:") for line in lines[2:-1]),
                    f"{size}: nothing is left of an earlier drawing", lines)
    # The first flow ends and gives its place to the next; in the middle of a narrow screen too.
    top.report([sample_run.traffic(9000, 100, 7000, 7, 8000, (25, 60, 9, 3, 19, 20), ended=1)])
    checks.that(top.wait_for(lambda: top.shows("1 ended") and ":7001" in top.screen.shown()[2]),
                f"{size}: what comes later is shown", top.screen.shown())
    os.write(top.master, b"\x03")
    checks.that(top.end() == 0, f"{size}: Ctrl-C ends it in order", top.process.returncode)
    checks.that(top.screen.modes == {"alternate": False, "cursor": True, "autowrap": True},
                f"{size}: the terminal is as it was", top.screen.modes)
    checks.that("30 flows, 1 ended" in top.screen.text and ":7029" in top.screen.text,
                f"{size}: the last picture stays", top.screen.text)
    checks.that(not top.screen.faults, f"{size}: nothing scrolled or ran over", top.screen.faults)


def check_full_width(checks, program):
    """The last column belongs to the line: clearing after it would clear it."""
    top = Top(program, 100, 5)
    top.report(flow(0, name="a name that is longer than any column, to the end of the line"))
    checks.that(top.wait_for(lambda: top.shows("198.51.100.10:7000")), "a long line is shown")
    top.report([sample_run.moved(9000, 100, 1)])  # puts a long word into the last column
    full = top.wait_for(lambda: any(len(line) == 100 for line in top.screen.shown()))
    checks.that(full, "a line fills the screen to its last column", top.screen.shown())
    os.kill(top.process.pid, signal.SIGTERM)
    checks.that(top.end() == 0, "SIGTERM ends it in order", top.process.returncode)
    checks.that(not top.screen.modes["alternate"] and top.screen.modes["cursor"],
                "SIGTERM leaves the terminal as it was", top.screen.modes)
    checks.that(not top.screen.faults, "nothing scrolled or ran over", top.screen.faults)


def check_moved(checks, program):
    """Figures stand beside the node that they were measured at."""
    top = Top(program, 120, 10)
    top.report([*flow(0, name="north"), sample_run.decision(7000, 100, 7000, 0, node=8),
                sample_run.moved(8000, 100, 0)])
    top.wait_for(lambda: top.shows("until"))
    rows = {name: next((line for line in top.screen.shown() if name in line), "") for name in ("north", "node-8")}
    checks.that("25 ±3 ms" in rows["north"] and "until" in rows["north"], "the first node has its figures", rows)
    checks.that("not reported" in rows["node-8"] and "(37 ms)" in rows["node-8"] and "±" not in rows["node-8"],
                "the new node has none", rows)
    os.write(top.master, b"\x03")
    checks.that(top.end() == 0 and not top.screen.faults, "nothing scrolled or ran over", top.screen.faults)


def check_plain(checks, program):
    """Without a terminal, or in one without control sequences: drawings below each other."""
    lines = "".join(json.dumps(line) + "\n" for line in flow(0)).encode()
    piped = subprocess.run([program, "watch", "--from", "-", "--top"], input=lines,
                           capture_output=True, timeout=TIMEOUT_S)
    checks.that(piped.returncode == 0 and b"1 flow, 0 ended" in piped.stdout, "a pipe gets the table",
                piped)
    checks.that(not any(byte < 32 and byte != 10 for byte in piped.stdout),
                "a pipe gets no control character", piped.stdout)
    dumb = Top(program, 80, 24, term="dumb")
    dumb.report(flow(0))
    checks.that(dumb.wait_for(lambda: "1 flow, " in dumb.screen.text), "a dumb terminal gets it too")
    os.write(dumb.master, b"\x03")
    checks.that(dumb.end() == 0, "Ctrl-C ends it there too", dumb.process.returncode)
    checks.that("\x1b" not in dumb.screen.text and not dumb.screen.modes["alternate"],
                "a dumb terminal gets no sequence", dumb.screen.text)


def main():
    if len(sys.argv) != 2 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__.strip())
    checks, program = Checks(), sys.argv[1]
    check_size(checks, program, 80, 24, (40, 10))
    check_size(checks, program, 40, 10, (200, 60))
    check_size(checks, program, 200, 60, (80, 24))
    check_full_width(checks, program)
    check_moved(checks, program)
    check_plain(checks, program)
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
