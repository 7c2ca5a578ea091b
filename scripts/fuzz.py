"""Looks for inputs that break something, and says how to repeat what it finds.

  scripts/fuzz.sh --minutes 10                        each target for ten minutes of a processor
  scripts/fuzz.sh --minutes 60 --jobs 2 udp_flow_fuzz tcp_session_fuzz
  scripts/fuzz.sh --minutes 60 --in-all               what is missing of an hour each, after earlier runs
  scripts/fuzz.sh --merge                             takes what was found into fuzz/corpus, minimised
  scripts/fuzz.sh --totals                            what all runs have done

What a target finds new stays in build/fuzz/found/TARGET, and the next run goes on from there; how long
it has run in all stays in build/fuzz/found/TARGET.json, and --merge adds it to fuzz/campaign.json, so that
another machine goes on as well. A target ends at its first finding, which goes to build/fuzz/findings.
Exit codes: 0 nothing was found, 1 something was, 2 wrong usage or no build.
"""
import argparse
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "fuzz"
CORPUS = ROOT / "fuzz" / "corpus"
CAMPAIGN = ROOT / "fuzz" / "campaign.json"
FINDINGS = BUILD / "findings"
NOTHING = {"cpu_seconds": 0, "runs": 0, "edges": 0}
# The limit of one input goes by the clock; a target may get a twentieth of a processor, or be stopped for a while.
LIMITS = ["-timeout=1200", "-report_slow_units=1200", "-rss_limit_mb=2048"]
PROGRESS_SECONDS = 15
STATUS = re.compile(r"^#(\d+)\t\S+.*?cov: (\d+) ft: (\d+)", re.M)
STAT = re.compile(r"^stat::(\w+):\s*(\d+)", re.M)
FOUND_NAME = re.compile(r"[0-9a-f]{40}")  # as libFuzzer names what it finds


def fail(message):
    print(f"fuzz.sh: {message}", file=sys.stderr)
    sys.exit(2)


def all_targets():
    return sorted(path.stem for path in (ROOT / "fuzz").glob("*_fuzz.cpp"))


def program(target):
    return BUILD / "fuzz" / target


def shown(path):
    return str(path.relative_to(ROOT))


def of_client(target):
    return target.startswith("client_")


def is_configured(with_client):
    cache = BUILD / "CMakeCache.txt"
    if not (BUILD / "build.ninja").exists() or not cache.exists():
        return False
    wanted = ["VYR_FUZZ:STRING=alone", *(["VYR_FUZZ_CLIENT:BOOL=ON"] if with_client else [])]
    return all(entry in cache.read_text(errors="replace") for entry in wanted)  # or it is of an older preset


def build(targets):
    with_client = any(of_client(target) for target in targets)
    if not is_configured(with_client):
        options = ["-DVYR_FUZZ_CLIENT=ON"] if with_client else []
        subprocess.run(["cmake", "--preset", "fuzz", *options], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["cmake", "--build", "--preset", "fuzz", "--target", *targets], cwd=ROOT, check=True)


def read_totals(path):
    try:
        return json.loads(path.read_text()) if path.exists() else {}
    except ValueError:
        fail(f"{shown(path)} is not as this program writes it; without it, counting starts again")


def write_totals(path, totals):
    beside = path.with_suffix(".new")
    beside.write_text(json.dumps(totals, indent=2) + "\n")
    beside.replace(path)


class Total:
    """What all runs of a target have done together: those before the last --merge, and those since."""

    def __init__(self, target):
        self.target = target
        self.path = BUILD / "found" / f"{target}.json"
        self.merged = read_totals(CAMPAIGN).get(target, NOTHING)
        self.since = {**NOTHING, **read_totals(self.path)}

    @property
    def cpu_seconds(self):
        return self.merged["cpu_seconds"] + self.since["cpu_seconds"]

    @property
    def runs(self):
        return self.merged["runs"] + self.since["runs"]

    @property
    def edges(self):
        return self.since["edges"] or self.merged["edges"]

    def keep(self, more_seconds, more_runs, edges):
        write_totals(self.path, {"cpu_seconds": round(self.since["cpu_seconds"] + more_seconds, 1),
                                 "runs": self.since["runs"] + more_runs, "edges": edges})

    def merge(self):
        totals = read_totals(CAMPAIGN)
        totals[self.target] = {"cpu_seconds": round(self.cpu_seconds), "runs": self.runs, "edges": self.edges}
        write_totals(CAMPAIGN, dict(sorted(totals.items())))
        self.path.unlink(missing_ok=True)


def cpu_seconds_of(pid):
    """What a process has used until now (proc(5): the fields 14 and 15 behind the name in parentheses)."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Run:
    """One target at work, its output in a log."""

    def __init__(self, target, cpu_seconds):
        self.target = target
        self.found = BUILD / "found" / target
        self.log = BUILD / "found" / f"{target}.log"
        self.before = {path.name for path in FINDINGS.glob(f"{target}-*")}
        self.begin = time.monotonic()
        self.limit = cpu_seconds
        self.cpu_seconds = 0.0
        self.is_asked_to_end = False
        self.found.mkdir(parents=True, exist_ok=True)
        self.total = Total(target)
        corpus = CORPUS / target
        corpus.mkdir(parents=True, exist_ok=True)
        command = [str(program(target)), "-print_final_stats=1", *LIMITS, f"-artifact_prefix={FINDINGS}/{target}-"]
        words = ROOT / "fuzz" / f"{target}.dict"
        if words.exists():
            command.append(f"-dict={words}")
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen([*command, str(self.found), str(corpus)], cwd=ROOT,
                                            stdout=log, stderr=subprocess.STDOUT)

    def has_ended(self):
        """Like poll; keeps the processor time, and asks the target to end when it has had its share."""
        if self.process.returncode is None:
            pid, status, usage = os.wait4(self.process.pid, os.WNOHANG)
            if pid == 0:
                self.watch()
                return False
            self.process.returncode = os.waitstatus_to_exitcode(status)
            self.cpu_seconds = usage.ru_utime + usage.ru_stime
        return True

    def watch(self):
        self.cpu_seconds = cpu_seconds_of(self.process.pid)
        if self.cpu_seconds >= self.limit:
            self.end()

    def end(self):
        """After the input at hand, with its statistics; while it is starting, the signal would just kill it."""
        if not self.is_asked_to_end and STATUS.search(self.text()):
            self.is_asked_to_end = True
            self.process.send_signal(signal.SIGUSR1)

    def text(self):
        return self.log.read_text(errors="replace")

    def statistics(self):
        """Runs, edges and features until now."""
        text = self.text()
        lines = STATUS.findall(text)
        runs, edges, features = (int(value) for value in (lines[-1] if lines else ("0", "0", "0")))
        stats = {name: int(value) for name, value in STAT.findall(text)}
        return stats.get("number_of_executed_units", runs), edges, features, stats.get("new_units_added", 0)

    def keep_total(self):
        runs, edges, _, _ = self.statistics()
        self.total.keep(self.cpu_seconds, runs, edges)

    def progress(self):
        runs, edges, _, _ = self.statistics()
        return f"{self.target}: {self.cpu_seconds:.0f} s of {self.limit:.0f} s, {runs} runs, {edges} edges"

    def result(self):
        runs, edges, features, new_inputs = self.statistics()
        seconds = max(time.monotonic() - self.begin, 0.001)
        new = {path.name for path in FINDINGS.glob(f"{self.target}-*")} - self.before
        findings = [f"{shown(program(self.target))} {shown(FINDINGS / name)}" for name in sorted(new)]
        if self.process.returncode != 0 and not findings:
            findings = [f"ended with {self.process.returncode}, see {shown(self.log)}"]
        return {"target": self.target, "seconds": round(seconds), "runs": runs,
                "runs_per_second": round(runs / seconds), "cpu_seconds": round(self.cpu_seconds),
                "runs_per_cpu_second": round(runs / max(self.cpu_seconds, 0.001)),
                "cpu_seconds_in_all": round(self.total.cpu_seconds + self.cpu_seconds),
                "runs_in_all": self.total.runs + runs, "edges": edges, "features": features,
                "new_inputs": new_inputs, "findings": findings}


def run_all(targets, seconds, jobs):
    """`seconds` of a processor for each target; what was done stays written down however this ends."""
    waiting, running, results = [target for target in targets if seconds[target] > 0], [], []
    said = time.monotonic()
    ends_early = []
    signal.signal(signal.SIGTERM, lambda *_: ends_early.append(True))
    signal.signal(signal.SIGINT, lambda *_: ends_early.append(True))
    while running or (waiting and not ends_early):
        while waiting and len(running) < jobs and not ends_early:
            target = waiting.pop(0)
            running.append(Run(target, seconds[target]))
        time.sleep(0.2)
        for run in [run for run in running if run.has_ended()]:
            running.remove(run)
            run.keep_total()
            results.append(run.result())
            print(f"{run.progress()}, done", file=sys.stderr)
        is_time = time.monotonic() - said >= PROGRESS_SECONDS
        for run in running:
            if ends_early:
                run.end()
            if is_time:
                said = time.monotonic()
                run.keep_total()
                print(run.progress(), file=sys.stderr)
    return results


def print_results(results):
    columns = {"target": "target", "cpu_seconds": "CPU seconds", "runs": "executions",
               "runs_per_cpu_second": "a CPU second", "edges": "edges", "features": "features",
               "new_inputs": "new inputs", "cpu_seconds_in_all": "CPU seconds in all",
               "runs_in_all": "executions in all"}
    print_table((*columns.values(), "findings"),
                [(*(one[key] for key in columns), len(one["findings"])) for one in results])
    print_findings(results)


def print_totals(targets):
    totals = [Total(target) for target in targets]
    print_table(("target", "CPU seconds", "executions", "a CPU second", "edges"),
                [(one.target, round(one.cpu_seconds), one.runs, round(one.runs / max(one.cpu_seconds, 0.001)),
                  one.edges) for one in totals])


def print_table(head, rows):
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
    for row in [head, *rows]:
        cells = [row[0].ljust(widths[0])] + [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
        print("  ".join(cells))


def print_findings(results):
    for one in results:
        for finding in one["findings"]:
            print(f"\n{one['target']} has found something. To repeat it:\n  {finding}")


def merge(target, most_bytes):
    """Named inputs stay; of the others, the few that reach an edge that nothing else here reaches."""
    corpus, found = CORPUS / target, BUILD / "found" / target
    with tempfile.TemporaryDirectory() as chosen:
        for path in corpus.iterdir():
            if not FOUND_NAME.fullmatch(path.name):
                shutil.copy(path, chosen)
        command = [str(program(target)), "-set_cover_merge=1", "-use_counters=0", *LIMITS,
                   f"-max_len={most_bytes}", chosen, str(corpus), str(found)]
        found.mkdir(parents=True, exist_ok=True)
        done = subprocess.run(command, cwd=ROOT, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        if done.returncode != 0:
            sys.stderr.write(done.stderr.decode(errors="replace")[-2000:])
            fail(f"{target} could not merge its inputs")
        before = {path.name for path in corpus.iterdir() if FOUND_NAME.fullmatch(path.name)}
        after = {path.name for path in pathlib.Path(chosen).iterdir() if FOUND_NAME.fullmatch(path.name)}
        for name in before - after:
            (corpus / name).unlink()
        for name in after - before:
            shutil.copy(pathlib.Path(chosen) / name, corpus / name)
    size = sum(path.stat().st_size for path in corpus.iterdir())
    print(f"{target}: {len(list(corpus.iterdir()))} inputs, {size} bytes, {len(after - before)} new")
    Total(target).merge()


def main():
    parser = argparse.ArgumentParser(prog="scripts/fuzz.sh", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("targets", nargs="*", metavar="TARGET", help="all of them if none is named")
    parser.add_argument("--without-client", action="store_true", help="leave out the targets of the client "
                        "program, whose library takes minutes to build")
    parser.add_argument("--minutes", type=float, metavar="N", help="how long each target runs, in minutes "
                        "of a processor (1)")
    parser.add_argument("--in-all", action="store_true", help="count what earlier runs have done into --minutes; "
                        "the least tried target comes first")
    parser.add_argument("--jobs", type=int, default=1, metavar="N", help="targets at a time (1)")
    parser.add_argument("--json", metavar="FILE", help="write the table there as well, - for standard output")
    parser.add_argument("--merge", action="store_true", help="afterwards, or without --minutes only: take "
                        "the found inputs that add something into fuzz/corpus")
    parser.add_argument("--most-bytes", type=int, default=4096, metavar="N",
                        help="of an input that --merge takes (4096)")
    parser.add_argument("--totals", action="store_true", help="print what all runs have done, and run nothing")
    parser.add_argument("--list", action="store_true", help="print the targets' names")
    parser.add_argument("--no-build", action="store_true", help="run what is built")
    options = parser.parse_args()
    known = all_targets()
    if options.list:
        print("\n".join(known))
        return 0
    for target in options.targets:
        if target not in known:
            fail(f"there is no target {target}; --list prints those that there are")
    if options.jobs < 1 or (options.minutes is not None and options.minutes <= 0):
        fail("--minutes and --jobs take numbers above 0")
    targets = options.targets or [target for target in known
                                  if not (options.without_client and of_client(target))]
    if options.totals:
        print_totals(targets)
        return 0
    if not options.no_build:
        try:
            build(targets)
        except (subprocess.CalledProcessError, FileNotFoundError):
            fail("the build of the preset 'fuzz' has failed; it needs clang (scripts/setup.sh)")
    missing = [target for target in targets if not program(target).exists()]
    if missing:
        fail(f"not built: {', '.join(missing)}")
    FINDINGS.mkdir(parents=True, exist_ok=True)
    results = []
    if options.minutes is not None or not options.merge:
        wanted = (options.minutes or 1) * 60
        done = {target: Total(target).cpu_seconds if options.in_all else 0.0 for target in targets}
        targets.sort(key=lambda target: done[target])
        for target in targets:
            if done[target] >= wanted:
                print(f"{target}: has had {done[target]:.0f} s of {wanted:.0f} s", file=sys.stderr)
        results = run_all(targets, {target: wanted - done[target] for target in targets}, options.jobs)
        if results:
            print_results(results)
    if options.json:
        text = json.dumps(results, indent=2) + "\n"
        if options.json == "-":
            sys.stdout.write(text)
        else:
            pathlib.Path(options.json).write_text(text)
    has_findings = any(one["findings"] for one in results)
    if options.merge and not has_findings:
        for target in targets:
            merge(target, options.most_bytes)
    return 1 if has_findings else 0


if __name__ == "__main__":
    sys.exit(main())
