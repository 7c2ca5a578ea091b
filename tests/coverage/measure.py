"""Builds the two coverage presets, runs the suites and exports what clang has counted."""

import concurrent.futures
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time

SUITES = ("unit", "scenario", "race", "fuzz")  # a whole run
SWARM = "swarm"  # a part of the scenarios, measured on its own
PRESET_OF = {"unit": "coverage", "scenario": "coverage", "race": "coverage-posix", "fuzz": "coverage",
             SWARM: "coverage"}  # fmt: skip
# As in tests/CMakeLists.txt.
MENDED = "TcpStorm.*:TcpCalm.*:UdpStorm.*:UdpSwarm.*:SwitchSwarm.*"


def say(text, end="\n"):
    print(text, end=end, file=sys.stderr, flush=True)


def tool(name):
    found = shutil.which(name)
    if not found:
        say(f"scripts/coverage.sh: no {name} here (Debian: clang, llvm)")
        sys.exit(77)
    return found


def fuzz_targets(tree):
    """But for those of the client program, which is no part of `src/` and is not built with them."""
    targets = {path.stem for path in (tree / "fuzz").glob("*_fuzz.cpp")}
    return sorted(target for target in targets if not target.startswith("client_"))


def targets_of(tree, suite):
    if suite == "fuzz":
        return fuzz_targets(tree)
    return ["scenario_tests" if suite == SWARM else f"{suite}_tests"]


def program_of(tree, suite, target):
    return tree / "build" / PRESET_OF[suite] / ("fuzz" if suite == "fuzz" else "tests") / target


def logged(log, command, tree, **environment):
    with open(log, "ab") as out:
        words = [str(word) for word in command]
        return subprocess.run(words, cwd=tree, stdout=out, stderr=out, env={**os.environ, **environment},
                              check=False).returncode  # fmt: skip


def build(tree, suites):
    for preset in dict.fromkeys(PRESET_OF[suite] for suite in suites):
        targets = [t for suite in suites if PRESET_OF[suite] == preset for t in targets_of(tree, suite)]
        log = tree / "build" / preset / "build.log"
        log.parent.mkdir(parents=True, exist_ok=True)
        log.unlink(missing_ok=True)
        say(f"building {preset}... ", end="")
        started = time.monotonic()
        if logged(log, ["cmake", "--preset", preset], tree) or logged(
                log, ["cmake", "--build", "--preset", preset, "--target", *targets], tree):
            say("FAILED; the end of " + str(log.relative_to(tree)))
            say("".join(log.open(errors="replace").readlines()[-30:]))
            sys.exit(1)
        say(f"done ({time.monotonic() - started:.0f} s)")


def swarm_jobs(program, seeds):
    """As many parts as there are cores, each with the next seeds."""
    parts = min(os.cpu_count(), seeds)
    first = 1
    for part in range(parts):
        count = seeds // parts + (part < seeds % parts)
        yield (f"{SWARM}.{part + 1}", [program, "--gtest_filter=WholeSwarm.*"],
               {"VYR_SWARM_FIRST": str(first), "VYR_SWARM_SEEDS": str(count)})  # fmt: skip
        first += count


def jobs_of(tree, suite, only, seeds):
    """Yields (name, command, environment) for each program that the suite runs."""
    if suite == SWARM:
        yield from swarm_jobs(program_of(tree, suite, "scenario_tests"), seeds)
        return
    if suite == "fuzz":
        for target in fuzz_targets(tree):
            corpus = tree / "fuzz" / "corpus" / target
            yield target, [program_of(tree, suite, target), "-runs=0", corpus], {}
        return
    command = [program_of(tree, suite, f"{suite}_tests"), *([f"--gtest_filter={only}"] if only else [])]
    shards = {"unit": 2, "scenario": 4}.get(suite, 1)
    for shard in range(shards):
        shared = {"GTEST_TOTAL_SHARDS": str(shards), "GTEST_SHARD_INDEX": str(shard)} if shards > 1 else {}
        yield f"{suite}.{shard + 1}" if shards > 1 else suite, command, shared
    if suite == "scenario" and not only:
        mended = [command[0], f"--gtest_filter={MENDED}"]
        yield "mended", mended, {"VYR_MENDED": "all", "VYR_SWARM_SEEDS": "10"}


def failed_tests(log):
    lines = log.read_text(errors="replace").splitlines()
    named = {line.split("]", 1)[1].split("(")[0].split(",")[0].strip() for line in lines
             if line.startswith("[  FAILED  ]")}  # fmt: skip
    return sorted(name for name in named if "." in name)


def run_job(tree, profiles, name, command, environment):
    """What failed."""
    log = profiles / f"{name}.log"
    started = time.monotonic()
    # Merged as they are written: a scenario is a process of its own, and there are thousands.
    code = logged(log, command, tree, LLVM_PROFILE_FILE=str(profiles / f"{name}-%m.profraw"), **environment)
    word = {0: "done", 77: "skipped"}.get(code, "FAILED")
    say(f"running {name}... {word} ({time.monotonic() - started:.0f} s)")
    if code in (0, 77):
        return []
    return failed_tests(log) or [f"{name} ended with {code}; see {log.relative_to(tree)}"]


def run_suites(tree, suites, only, profiles, seeds):
    jobs = [job for suite in suites for job in jobs_of(tree, suite, only, seeds)]
    say(f"running {len(jobs)} programs, {os.cpu_count()} at a time")
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        done = [pool.submit(run_job, tree, profiles, *job) for job in jobs]
        return [failure for one in done for failure in one.result()]


def export(tree, suites, profiles):
    """What llvm-cov makes of the profiles, for the files of src/."""
    merged = profiles / "merged.profdata"
    subprocess.run([tool("llvm-profdata"), "merge", "-o", merged, *sorted(profiles.glob("*.profraw"))], check=True)
    programs = [program_of(tree, suite, target) for suite in suites for target in targets_of(tree, suite)]
    objects = [word for program in programs[1:] for word in ("--object", program)]
    done = subprocess.run(
        [tool("llvm-cov"), "export", programs[0], *objects, f"--instr-profile={merged}", "--skip-functions",
         "--skip-expansions", r"--ignore-filename-regex=/(tests|devkit|port|fuzz|bench|googletest)/"],
        stdout=subprocess.PIPE, check=True)  # fmt: skip
    return json.loads(done.stdout)


def figures_of(tree, only):
    """The folder of what a run has counted. The swarm has one of its own."""
    return tree / "build" / ("swarm-figures" if only == [SWARM] else "coverage-figures")


def run(tree, only, tests, add, seeds=0):
    """Builds, runs and counts; `add` adds to what the last run has counted."""
    for name in ("clang++", "llvm-profdata", "llvm-cov"):
        tool(name)
    before = last(tree, only) if add else {"suites": [], "complete": [], "failures": [], "seeds": 0}
    suites = [suite for suite in (*SUITES, SWARM) if suite in (only or SUITES)]
    build(tree, suites)
    profiles = figures_of(tree, only)
    if not add:
        shutil.rmtree(profiles, ignore_errors=True)
        profiles.mkdir(parents=True)
    failures = before["failures"] + run_suites(tree, suites, tests, profiles, seeds)
    complete = set(before["complete"]) | (set() if tests else set(suites))
    suites = [suite for suite in (*SUITES, SWARM) if suite in suites or suite in before["suites"]]
    result = {"suites": suites, "complete": sorted(complete), "whole": complete == set(SUITES),
              "failures": failures, "seeds": seeds, "export": export(tree, suites, profiles)}  # fmt: skip
    (profiles / "last.json").write_text(json.dumps(result))
    return result


def last(tree, only=None):
    try:
        return json.loads((figures_of(tree, only) / "last.json").read_text())
    except OSError:
        sys.exit("scripts/coverage.sh: there is no last run here")


def relative(path, tree):
    """Where a path of any checkout, or one relative to a build folder, lies in this tree; None if nowhere."""
    name = pathlib.PurePosixPath("src", path.rsplit("/src/", 1)[-1])
    return str(name) if "/src/" in path and (tree / name).is_file() else None
