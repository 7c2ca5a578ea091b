#!/usr/bin/env python3
"""Runs `vyr_client` as a person does, and looks at what it says, where, and how it ends.

usage: check_client.py VYR_CLIENT
"""
import json
import os
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile
import tomllib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "page"))
import sample_run  # noqa: E402
from checks import Checks  # noqa: E402

TIMEOUT_S = 120
NOBODY = 65534


class Client:
    """The program, in a folder of its own."""

    def __init__(self, program, folder):
        # A copy, because another user may not enter the build folder.
        self.program = shutil.copy(program, folder / "vyr_client")
        self.folder = folder
        folder.chmod(0o777)

    def run(self, *words, output=subprocess.PIPE, **options):
        return subprocess.run(
            [self.program, *map(str, words)], cwd=self.folder, stdin=subprocess.DEVNULL,
            stdout=output, stderr=subprocess.PIPE, text=True, timeout=TIMEOUT_S, check=False,
            **options)  # fmt: skip

    def write(self, name, text):
        path = self.folder / name
        path.write_text(text, encoding="utf-8")
        return path


def reports(count):
    """The reports of ten flows, as `watch --json` prints them."""
    lines = [sample_run.decision(1000, 100 + flow, 7000 + flow, 0, node=7) for flow in range(10)]
    for number in range(count):
        flow = number % 10
        lines.append(sample_run.traffic(
            6000 + number, 100 + flow, 7000 + flow, 7, 5000 + number, (25, 60, 9, 3, 19, 20)))  # fmt: skip
    return "".join(json.dumps(line) + "\n" for line in lines)


def children_cpu():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def check_large_file(client, checks):
    """A file ten times as large takes about ten times as long, and says how far it is."""
    costs = []
    for name, count in (("small.jsonl", 10000), ("large.jsonl", 100000)):
        client.write(name, reports(count))
        before = children_cpu()
        done = client.run("watch", "--from", name, "--json", "--report", "page.html",
                          output=subprocess.DEVNULL)  # fmt: skip
        costs.append(children_cpu() - before)
        checks.that(done.returncode == 0, f"{name} is shown", done.stderr)
    # Quadratic work would cost a hundred times as much.
    checks.that(costs[1] < 30 * max(costs[0], 0.1), "the time is linear", f"{costs}")
    told = [line for line in done.stderr.splitlines() if line.endswith(" % read")]
    checks.that(told and told[0].startswith("vyr_client: large.jsonl: "), "progress is shown", done.stderr)


def check_unwritable_report(client, checks):
    """What cannot be written is an error before the first report is shown."""
    client.write("few.jsonl", reports(5))
    (client.folder / "folder.html").mkdir()
    for page, reason in (("missing/page.html", "cannot be written: no such folder"),
                         ("folder.html", "is a directory, not a file")):  # fmt: skip
        done = client.run("watch", "--from", "few.jsonl", "--report", page)
        checks.that(done.returncode == 1, f"{page}: exit code", f"{done.returncode}")
        checks.that(f"vyr_client: {page}: {reason}\n" in done.stderr, f"{page}: reason", done.stderr)
        checks.that(done.stdout == "", f"{page}: nothing is shown before", done.stdout)
    page = client.write("page.html", "the page of an earlier run")
    checks.that(client.run("watch", "--report", page.name).returncode == 1, "no report regions")
    checks.that(page.read_text() == "the page of an earlier run", "asking leaves the old page")


def check_missing_reports(client, checks):
    for name, reason in (("none.jsonl", "does not exist"), (".", "is a directory, not a file")):
        done = client.run("watch", "--from", name)
        checks.that(done.returncode == 1 and f"{name}: {reason}\n" in done.stderr, f"--from {name}",
                    done.stderr)  # fmt: skip


def check_files_that_cannot_be_read(client, checks):
    """A directory, a missing file and a forbidden one are told apart; none of them is a bad file."""
    secret = client.write("secret.toml", "game = []")
    secret.chmod(0)
    root = {"user": NOBODY, "group": NOBODY} if os.geteuid() == 0 else {}  # who may read anything
    for name, reason in (("missing.toml", "does not exist"), (".", "is a directory, not a file"),
                         ("secret.toml", "may not be read: permission denied")):  # fmt: skip
        for words in (("check", name), ("compile", name, "--route-file", "route.dat"), ("serve", name),
                      ("explain", "198.51.100.10:8080", "tcp", "--file", name)):  # fmt: skip
            done = client.run(*words, **root)
            said = (done.returncode, done.stdout, done.stderr.splitlines()[-1:])
            checks.that(said == (1, "", [f"{name}: {reason}"]), f"{words}", f"{said}")
    client.write("wrong.toml", "game = 5")
    checks.that(client.run("check", "wrong.toml").returncode == 3, "a file that is refused")


def check_output_that_cannot_be_written(client, checks):
    client.write("right.toml", "game = []")
    with open("/dev/full", "w", encoding="utf-8") as full:
        for words in (("check", "right.toml"), ("check", "right.toml", "--json"), ("sample",),
                      ("compile", "right.toml", "--route-file", "route.dat")):  # fmt: skip
            done = client.run(*words, output=full)
            checks.that((done.returncode, done.stderr) == (1, "vyr_client: the output cannot be written\n"),
                        f"{words} to a full disk", f"{done.returncode} {done.stderr}")  # fmt: skip
    checks.that(client.run("check", "right.toml").returncode == 0, "and where there is room")


def check_sample(client, checks):
    """-o writes UTF-8 that `check` takes, and replaces nothing."""
    path, logs = "C:\\Spiele\\Ümläut 漢字.exe", "D:\\Protokolle"
    done = client.run("sample", "-o", "games.toml", "--game", path, "--log-dir", logs)
    checks.that((done.returncode, done.stdout, done.stderr) == (0, "", ""), "sample -o", f"{done}")
    table = tomllib.loads((client.folder / "games.toml").read_text(encoding="utf-8"))["game"][0]
    checks.that(table["game_paths"] == [path], "the path is in it", f"{table['game_paths']}")
    checks.that(table["log_path"] == logs + "\\", "the log's folder ends in a backslash", table["log_path"])
    done = client.run("check", "games.toml")
    checks.that(done.returncode == 0 and done.stderr == "", "and nothing is wrong with it", done.stderr)
    before = (client.folder / "games.toml").read_bytes()
    done = client.run("sample", "-o", "games.toml")
    checks.that((done.returncode, done.stderr) == (1, "vyr_client: games.toml: exists already\n"),
                "a file that stands is not replaced", done.stderr)  # fmt: skip
    checks.that((client.folder / "games.toml").read_bytes() == before, "and stays as it is")
    for wrong, words in (("game.exe", "is no full path"), ("C:\\*.exe", "has a wildcard"), ("C:\\games\\", "names a folder")):
        done = client.run("sample", "--game", wrong)
        checks.that(done.returncode == 0 and words in done.stderr and wrong in done.stdout,
                    f"'{wrong}' is written with a warning", done.stderr)
    done = client.run("sample", "-o", "never.toml", "--game", "C:\\a\tb.exe")
    checks.that(done.returncode == 2 and "holds a TAB" in done.stderr and not (client.folder / "never.toml").exists(),
                "what no file may hold is not written", done.stderr)
    done = client.run("sample", "-o", "missing/games.toml")
    checks.that(done.returncode == 1 and "no such folder" in done.stderr, "no such folder", done.stderr)


def check_explain(client, checks):
    client.run("sample", "-o", "asked.toml")
    for protocol in ("tcp", "TCP", "Tcp"):
        done = client.run("explain", "198.51.100.10:8080", protocol, "--file", "asked.toml")
        checks.that(done.stdout.startswith("198.51.100.10:8080 TCP is accelerated"), f"explain {protocol}",
                    done.stdout + done.stderr)  # fmt: skip
    done = client.run("explain", "198.51.100.10:8080", "tcp", "--file", "asked.toml", "--game", "esbuild.exe")
    checks.that("asked as C:\\vyr\\esbuild.exe (game 10001)" in done.stdout, "it names the game", done.stdout)


def check_utf_16(client, checks):
    path = client.folder / "wide.toml"
    path.write_text("game = []", encoding="utf-16")
    done = client.run("check", "wide.toml")
    checks.that(done.returncode == 3 and "wide.toml: is UTF-16" in done.stderr, "UTF-16", done.stderr)


def check_served_file(client, checks):
    """What happens to the file while it is served, and what is said of it."""
    path = client.write("served.toml", "game = []\n")
    server = subprocess.Popen([client.program, "serve", path.name, "--until-eof"], cwd=client.folder,
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True)  # fmt: skip
    def says(words):
        for line in server.stdout:
            if words in line:
                return True
        return False
    try:
        checks.that(says("ready"), "it serves")
        path.unlink()
        checks.that(says("served.toml: has vanished; what was served before stays"), "the file vanishes")
        path.write_text("")
        checks.that(says("served.toml: is empty; what was served before stays"), "it is empty")
        path.write_text("[[game]]\ngame_id = 1\ngame_paths = []\nnet_mode = 0\nlog_level = 5\n"
                        "log_path = 'C:\\l\\'\n[[spur]]\ngame_idc = 1\naddresses = ['9.9.9.9']\n")  # fmt: skip
        checks.that(says("served.toml: can be read again"), "it can be read again")
        checks.that(says("taken over: spur list, 1 address"), "and is taken over")
        draft = client.write("draft.toml", "game = []\n")
        draft.rename(path)
        checks.that(says("taken over: games, 0 games"), "a file that is renamed into place is taken over")
        checks.that(says("warning: it is empty now; it held 1 game"), "the games are gone")
        checks.that(says("warning: it is empty now; it held 1 address"), "the spur list as well")
        path.write_text("game = 5\n")
        checks.that(says("not taken over; what was served before stays"), "a file that is wrong")
    finally:
        server.communicate(timeout=TIMEOUT_S)
    checks.that(server.returncode == 0, "it ends")


def main():
    checks = Checks()
    with tempfile.TemporaryDirectory() as folder:
        client = Client(sys.argv[1], pathlib.Path(folder))
        for name, check in list(globals().items()):
            if name.startswith("check_"):
                check(client, checks)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
