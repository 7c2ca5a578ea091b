#!/usr/bin/env python3
"""Runs `vyr_client` as a person does, and looks at what it says, where, and how it ends.

usage: check_client.py VYR_CLIENT
"""
import json
import pathlib
import resource
import shutil
import subprocess
import sys
import tempfile

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
