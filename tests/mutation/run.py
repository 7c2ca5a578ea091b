"""What a run of scripts/mutate.sh judges, and what is known of each mutant."""

import concurrent.futures
import hashlib
import shutil
import time

import equivalents
import judge
import schemata

# A survivor costs all tests that reach it, a killed mutant a few. So each mutant meets a second of the cheap ones
# first, and what survives meets more when all others have had their turn. None: all of them.
ROUNDS_MS = (1000, 8000, None)


class Run:
    """The mutants that were asked for and what is known of them."""

    def __init__(self, arguments, src, build, reasons, say):
        self.arguments = arguments
        self.src = src
        self.build = build
        self.kept = build / "judge"
        self.reasons = reasons
        self.say = say
        self.results = judge.Results(self.kept / "results.json")
        if arguments.again:
            self.results.known = {}
        self.file_hashes = {}
        self.court = None
        self.survived = {}  # key of a mutant -> names of tests, in this run

    def file_hash(self, name):
        if name not in self.file_hashes:
            self.file_hashes[name] = hashlib.sha256((self.src / name).read_bytes()).hexdigest()[:16]
        return self.file_hashes[name]

    def state(self, mutant, tests):
        names = " ".join(sorted(test.name for test in tests)).encode()
        return {"file": self.file_hash(mutant["file"]), "tests": hashlib.sha256(names).hexdigest()[:16]}

    def programs(self):
        """Copies of the suites, so that they can be built again meanwhile."""
        copies = {}
        for suite in judge.SUITES:
            program, copy = self.build / "tests" / suite, self.kept / suite
            if program.exists():
                self.kept.mkdir(parents=True, exist_ok=True)
                copy.unlink(missing_ok=True)  # one that still runs cannot be written to
                shutil.copy2(program, copy)
                copies[suite] = copy
        if not copies:
            raise SystemExit("mutate: the suites have not been built: leave out --no-build")
        return copies

    def judge(self, chosen):
        """All that are not known yet; returns how many were left."""
        arguments = self.arguments
        everything = schemata.sources_below(self.build / "product")
        key = hashlib.sha256(b"".join(path.read_bytes() for path in everything)).hexdigest()
        programs = self.programs()
        self.court = judge.Judge(programs, self.kept, arguments.seeds, self.say)
        self.court.reach(f"{key} {arguments.seeds}", arguments.again)
        self.results.seeds = arguments.seeds
        self.results.judges = {suite: sum(test.suite == suite for test in self.court.tests) for suite in programs}
        end = time.monotonic() + 60 * arguments.minutes if arguments.minutes else None
        return self.rounds([case for case in map(self.case, chosen) if self.is_asked_for(case)], end)

    def rounds(self, waiting, end):
        # What has survived tests before comes last: it will cost most, and tell least.
        waiting.sort(key=lambda case: self.results.known.get(case[0], {}).get("met", 0) > 0)
        try:
            if self.arguments.mutant:
                return self.work_off(waiting, end, None)
            for most_ms in ROUNDS_MS:
                left = self.work_off([case for case in waiting if self.is_open(case, most_ms)], end, most_ms)
                if left:
                    return left
            return 0
        finally:
            self.results.save()

    def is_open(self, case, most_ms):
        """Whether it has not been judged in this round or a later one."""
        result = self.results.get(case[0], case[3])
        if result is None:
            return True
        rounds = [round_ms or float("inf") for round_ms in (result["round_ms"], most_ms)]
        return rounds[0] < rounds[1] and not self.results.is_complete(case[0])

    def case(self, mutant):
        tests = self.court.judges_of(mutant["number"])
        return equivalents.key_of(mutant), mutant, tests, self.state(mutant, tests)

    def is_asked_for(self, case):
        arguments = self.arguments
        return bool(arguments.check_list or arguments.mutant or not self.reasons.lists(case[1]))

    def work_off(self, waiting, end, most_ms):
        """One after the other, or as many at a time as jobs were asked for, until the end; returns how many are left."""
        done = survivors = 0
        jobs = max(1, self.arguments.jobs)
        started = time.monotonic()
        with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            at_work = {}
            queue = iter(waiting)
            while True:
                while len(at_work) < jobs and (end is None or time.monotonic() < end):
                    case = next(queue, None)
                    if case is None:
                        break
                    passed = self.survived.setdefault(case[0], set())
                    at_work[pool.submit(self.court.judge, case[1], case[2], most_ms, passed)] = case
                if not at_work:
                    return len(waiting) - done
                finished, _ = concurrent.futures.wait(at_work, return_when=concurrent.futures.FIRST_COMPLETED)
                for one in finished:
                    name, mutant, tests, state = at_work.pop(one)
                    outcome = one.result()
                    self.results.put(name, state | {"judges": len(tests), "round_ms": most_ms}, outcome)
                    done += 1
                    survivors += not outcome.killed
                    rate = (time.monotonic() - started) / done
                    self.say(f"{done}/{len(waiting)} judged, {survivors} survive, {rate:.2f} s each, "
                             f"{mutant['file']}:{mutant['line']}")

    def status(self, mutant):
        """killed, equivalent, survived, not reached or not judged, and the result."""
        name = equivalents.key_of(mutant)
        result = self.results.known.get(name)
        if result is not None and result["file"] != self.file_hash(mutant["file"]):
            result = None
        if result is not None and result["killed"]:
            return "killed", result
        if self.reasons.of(mutant):
            return "equivalent", result
        if result is None:
            return "not judged", None
        return ("survived" if result["judges"] else "not reached"), result
