"""Runs the tests against the mutants: each test once for what it reaches, then each mutant against the
tests that reach it, until one of them fails or it has met as many as it may."""

import array
import dataclasses
import json
import os
import re
import resource
import signal
import subprocess
import tempfile
import time

SUITES = ("unit_tests", "scenario_tests")
FIRST_BATCH_MS = 200  # the cheapest tests; each further batch takes up to so many times longer
BATCH_GROWTH = 5
MOST_BATCH_TESTS = 400
REACHED_AT_ONCE = 30
# They stop after every instruction, which takes minutes where each place asks for its mutant.
NO_JUDGES = re.compile(r"/ReportSlots\.AreFreeOrCompleteAfterEachWrite/")
LEAST_CPU_S = 1  # beyond what the tests need: an endless loop costs this
TIMES_SLOWER = 5
TIMES_WAITING = 15  # of the processor time, on a busy machine
MOST_MEMORY = 6 << 30  # addresses of the shadow stacks included
MOST_FILE = 64 << 20


@dataclasses.dataclass
class Test:
    suite: str
    name: str
    ms: int
    reaches: int = 0  # so many mutants


@dataclasses.dataclass
class Outcome:
    killed: bool
    by: str = ""
    how: str = ""  # failed, crashed, endless
    met: int = 0  # so many tests


def run(program, tests, environment, cpu_s, wall_s, fast=True):
    """Exit code (None: out of time) and output, up to the first failure if fast. Everything that it started has ended
    afterwards."""

    def limits():
        resource.setrlimit(resource.RLIMIT_CPU, (cpu_s, cpu_s + 1))
        resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY, MOST_MEMORY))
        resource.setrlimit(resource.RLIMIT_FSIZE, (MOST_FILE, MOST_FILE))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))

    with tempfile.TemporaryDirectory(prefix="mutant-") as folder:
        words = [program, f"--gtest_filter={':'.join(tests)}", "--gtest_color=no"]
        if fast:
            words.append("--gtest_fail_fast")
        with open(f"{folder}/output", "wb+") as output:
            child = subprocess.Popen(words, cwd=folder, env=environment | {"TMPDIR": folder}, stdin=subprocess.DEVNULL,
                                     stdout=output, stderr=subprocess.STDOUT, start_new_session=True,
                                     preexec_fn=limits)  # fmt: skip
            try:
                code = child.wait(wall_s)
            except subprocess.TimeoutExpired:
                code = None
            try:
                os.killpg(child.pid, signal.SIGKILL)  # the group of the child's own session
            except ProcessLookupError:
                pass
            child.wait()
            output.seek(0)
            return code, output.read(1 << 22).decode("latin-1")


class Judge:
    def __init__(self, programs, folder, seeds, say):
        self.programs = programs  # suite -> path
        self.folder = folder
        self.say = say
        self.environment = {name: value for name, value in os.environ.items() if not name.startswith(("VYR_", "GTEST_"))}
        self.environment["VYR_SWARM_SEEDS"] = str(seeds)
        self.tests = []
        self.reached_by = {}  # number of a mutant -> tests
        self.broken = []  # tests that fail with no mutant
        self.last_killers = {}  # file -> names, the newest first

    # --- what each test reaches ---------------------------------------------------------------------

    def names(self, suite):
        said = subprocess.run([self.programs[suite], "--gtest_list_tests"], env=self.environment, check=True,
                              capture_output=True, text=True).stdout  # fmt: skip
        group = ""
        for line in said.splitlines():
            word = line.split("#")[0].rstrip()
            if word and not word.startswith(" "):
                group = word
            elif word and "DISABLED_" not in group + word and not NO_JUDGES.search(group + word.strip()):
                yield group + word.strip()

    def reach(self, key, again=False):
        """Runs each test once, unless that has been done for these mutants: many in one process, and by themselves
        those that one of them keeps from ending."""
        for suite in self.programs:
            note = self.folder / f"reach-{suite}.txt"
            known = self.read(note, key) if not again else {}
            names = list(self.names(suite))
            if not known:
                note.write_text(key + "\n")
            environment = self.environment | {"VYR_MUTANTS_REACHED": str(note)}
            for at_once in (REACHED_AT_ONCE, 1):
                missing = [name for name in names if name not in known]
                for i in range(0, len(missing), at_once):
                    self.say(f"{suite}: what each test reaches, {i}/{len(missing)} {missing[i]}")
                    run(self.programs[suite], missing[i : i + at_once], environment, 300, 900, fast=False)
                known = self.read(note, key)
            for name in names:
                if name not in known:
                    self.broken.append(f"{suite} {name}: did not end")
                    continue
                failed, ms, reached = known[name]
                if failed:
                    self.broken.append(f"{suite} {name}: failed")
                    continue
                self.tests.append(Test(suite, name, ms, len(reached)))
                for number in reached:
                    self.reached_by.setdefault(number, []).append(self.tests[-1])

    @staticmethod
    def read(note, key):
        if not note.exists():
            return {}
        with open(note, encoding="ascii") as lines:
            if lines.readline().strip() != key:
                return {}
            found = {}
            for line in lines:
                if not line.endswith("\n"):
                    break  # cut off
                name, failed, ms, reached = line.rstrip("\n").split("\t")
                found[name] = (failed == "1", int(ms), array.array("I", map(int, reached.split())))
            return found

    # --- one mutant ---------------------------------------------------------------------------------

    def judges_of(self, number):
        return self.reached_by.get(number, [])

    def batches(self, mutant, tests):
        """Those that killed others of this file first, then the cheap ones, and of these first those that
        reach little: what they ask is about this place."""
        killers = self.last_killers.get(mutant["file"], [])[:6]
        first = [test for test in tests if test.name in killers and test.ms < FIRST_BATCH_MS * BATCH_GROWTH]
        first.sort(key=lambda test: SUITES.index(test.suite))
        rest = [test for test in tests if test not in first]
        rest.sort(key=lambda test: (max(test.ms, FIRST_BATCH_MS // 4).bit_length(), SUITES.index(test.suite), test.reaches))
        batch, spent, most = [], 0, FIRST_BATCH_MS
        for test in first + rest:
            if batch and (test.suite != batch[0].suite or spent + test.ms > most or len(batch) >= MOST_BATCH_TESTS):
                if test.suite == batch[0].suite:
                    most *= BATCH_GROWTH
                yield batch
                batch, spent = [], 0
            batch.append(test)
            spent += test.ms + 1
        if batch:
            yield batch

    def judge(self, mutant, tests, most_ms=None, passed=()):
        """Against all tests, or against those that come first and take no more than most_ms, but at least one; not
        again against those that it has passed. A set of these grows."""
        passed = passed if isinstance(passed, set) else set(passed)
        spent = sum(test.ms for test in tests if test.name in passed)
        for batch in self.batches(mutant, [test for test in tests if test.name not in passed]):
            batch = [test for test, before in zip(batch, times_before(batch))
                     if most_ms is None or spent + before + test.ms <= most_ms or spent + before == 0]  # fmt: skip
            if not batch:
                break
            ms = sum(test.ms for test in batch)
            cpu_s = int(LEAST_CPU_S + TIMES_SLOWER * ms / 1000)
            environment = self.environment | {"VYR_MUTANT": str(mutant["number"])}
            code, output = run(self.programs[batch[0].suite], [test.name for test in batch], environment, cpu_s,
                               TIMES_WAITING * cpu_s)  # fmt: skip
            if code == 0:
                spent += ms
                passed.update(test.name for test in batch)
                continue
            outcome = verdict(code, output)
            outcome.met = len(passed) + len(batch)
            killers = self.last_killers.setdefault(mutant["file"], [])
            if outcome.by in killers:
                killers.remove(outcome.by)
            killers.insert(0, outcome.by)
            return outcome
        return Outcome(False, met=len(passed))


def times_before(tests):
    """Of each test how long those before it take."""
    before = 0
    for test in tests:
        yield before
        before += test.ms


def verdict(code, output):
    failed = re.findall(r"^\[  FAILED  \] ([\w./]+\.[\w./]+)", output, re.MULTILINE)
    begun = re.findall(r"^\[ RUN      \] ([\w./]+)", output, re.MULTILINE)
    if code is None or code == -signal.SIGXCPU or code == -signal.SIGKILL:
        return Outcome(True, begun[-1] if begun else "", "endless")
    if failed:
        return Outcome(True, failed[0], "failed")
    return Outcome(True, begun[-1] if begun else "", "crashed")


class Results:
    """What is known of each mutant, in a file that an interrupted run leaves behind."""

    def __init__(self, path):
        self.path = path
        kept = json.loads(path.read_text()) if path.exists() else {}
        self.known = kept.get("mutants", {})
        self.judges = kept.get("judges", {})  # of each suite the number of its tests
        self.seeds = kept.get("seeds", 0)
        self.saved = time.monotonic()

    def get(self, key, state):
        """The result of that state of the file and of the tests, or None."""
        result = self.known.get(key)
        if result is None or result["file"] != state["file"]:
            return None
        return result if result["killed"] or result["tests"] == state["tests"] else None

    def is_complete(self, key):
        result = self.known[key]
        return result["killed"] or result["met"] == result["judges"]

    def put(self, key, state, outcome):
        self.known[key] = state | dataclasses.asdict(outcome)
        if time.monotonic() - self.saved > 5:
            self.save()

    def save(self):
        self.path.parent.mkdir(parents=True, exist_ok=True)
        part = self.path.with_suffix(".part")
        about = {"judges": self.judges, "seeds": self.seeds}
        part.write_text(json.dumps(about | {"mutants": self.known}, indent=0))
        part.replace(self.path)
        self.saved = time.monotonic()
