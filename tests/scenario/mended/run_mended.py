"""Runs every scenario of a game a second time, with everything mended.

usage: run_mended.py SCENARIO_TESTS SOURCE_FOLDER

unmended_behaviour.txt lists the tests that hold a behaviour which a mending changes. Each of them
must fail with everything mended, and pass with everything but the mendings that its line names
("all": with nothing mended). All other tests must pass with everything mended. "Everything" is what
a client's "all" asks for; the random worlds run with the rest as well.

Left out are the files whose tests choose their mendings themselves (mended_*_test.cpp), and those
in which no game runs. A file has a game if what it includes leads to game_process.h.
"""
import collections
import concurrent.futures
import functools
import operator
import os
import pathlib
import re
import resource
import signal
import subprocess
import sys
import time

PARALLEL = 2
TESTS_IN_A_RUN = 120
SECONDS_FOR_A_RUN = 280
RANDOM_WORLDS = 10
LIST = "tests/scenario/mended/unmended_behaviour.txt"
HAS_A_GAME = "tests/scenario/game_process.h"
INCLUDE = re.compile(r'^#include "(tests/[^"]+)"', re.MULTILINE)
SUITE = re.compile(r"^[ \t]*\w*(?:TEST|SCENARIO)\w*\(\s*(\w+)\s*,", re.MULTILINE)
# A file's own macro for a scenario names the fixture in its definition.
SHORT_FORM = re.compile(r"^#define \w+\((\w+)[^)]*\)[\s\\]+\w+\(\s*(\w+),\s*\1\b", re.MULTILINE)
NAME = re.compile(r'\{"([\w-]+)", (kMend\w+)\}')
BIT = re.compile(r"u32 (kMend\w+) = (0x[0-9a-f]+);")
ALL = re.compile(r"u32 kMendAll =([^;]+);")
LINE = re.compile(r"(\w+)\.(\w+|\*)\s+([\w,-]+)\s+(\S.*)")
PASSED = re.compile(r"^\[       OK \] ([\w.]+)", re.MULTILINE)
SKIPPED = re.compile(r"^\[  SKIPPED \] ([\w.]+)", re.MULTILINE)
FAILED = re.compile(r"^\[  FAILED  \] ([\w.]+) \(", re.MULTILINE)

Run = collections.namedtuple("Run", "bits tests must_fail")
Listed = collections.namedtuple("Listed", "line mendings")


def suites_with_a_game(source):
    folder = source / "tests/scenario"
    reaches = {}

    def has_a_game(path):
        if path not in reaches:
            reaches[path] = path == HAS_A_GAME  # also ends a circle
            file = source / path
            text = file.read_text(encoding="utf-8") if file.exists() else ""
            reaches[path] = reaches[path] or any(has_a_game(one) for one in INCLUDE.findall(text))
        return reaches[path]

    suites = set()
    for file in sorted(folder.glob("*_test.cpp")):
        if file.name.startswith("mended_") or not has_a_game(f"tests/scenario/{file.name}"):
            continue
        text = file.read_text(encoding="utf-8")
        suites.update(SUITE.findall(text))
        suites.update(fixture for _, fixture in SHORT_FORM.findall(text))
    return suites


def tests_of(binary):
    """All tests, in their order, as Suite.Test."""
    text = subprocess.run([binary, "--gtest_list_tests"], check=True, capture_output=True,
                          text=True).stdout
    suite, tests = "", []
    for line in text.splitlines():
        if line.startswith("  "):
            tests.append(suite + line.split()[0])
        elif line.rstrip().endswith("."):
            suite = line.strip()
    return tests


def bits_of_mendings(source):
    formats = (source / "src/abi/mending_formats.h").read_text(encoding="utf-8")
    bits = {constant: int(bit, 16) for constant, bit in BIT.findall(formats)}
    names = NAME.findall((source / "src/abi/mending_names.h").read_text(encoding="utf-8"))
    mendings = {name: bits[constant] for name, constant in names}
    everything = ALL.search(formats)[1]
    return {**mendings, "all": sum(bits[one.strip()] for one in everything.split("|"))}


def read_list(text, tests, bits):
    """The listed tests, and what is wrong with the list."""
    listed, wrong = {}, []
    for number, line in enumerate(text.splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        match = LINE.fullmatch(line.strip())
        if match is None:
            wrong.append(f"{LIST}:{number}: not 'Suite.Test mending[,mending] reason'")
            continue
        suite, test, mendings, _ = match.groups()
        unknown = [name for name in mendings.split(",") if name not in bits]
        meant = [one for one in tests if one == f"{suite}.{test}"
                 or test == "*" and one.startswith(suite + ".")]
        if unknown:
            wrong.append(f"{LIST}:{number}: no mending is called {unknown[0]}")
        if not meant:
            wrong.append(f"{LIST}:{number}: no test of a game is called {suite}.{test}")
        wrong.extend(f"{LIST}:{number}: {one} is listed twice" for one in meant if one in listed)
        if not unknown:
            mended = functools.reduce(operator.or_, (bits[one] for one in mendings.split(",")))
            listed.update({one: Listed(number, mended) for one in meant})
    return listed, wrong


def plan(tests, listed, everything):
    """The runs: as few as give each core its part."""
    groups = collections.defaultdict(list)
    for test in tests:
        if test in listed:
            groups[everything & ~listed[test].mendings, False].append(test)
            groups[everything, True].append(test)
        else:
            groups[everything, False].append(test)
    runs = []
    for (bits, must_fail), group in groups.items():
        parts = -(-len(group) // TESTS_IN_A_RUN)
        runs.extend(Run(bits, group[part::parts], must_fail) for part in range(parts))
    return sorted(runs, key=lambda run: -len(run.tests))


def output_of_a_run(binary, environment):
    # Each scenario is a process of its own, and ends with the run.
    process = subprocess.Popen([binary], env=environment, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, start_new_session=True)
    try:
        return process.communicate(timeout=SECONDS_FOR_A_RUN)[0]
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        return process.communicate()[0]


def perform(binary, run):
    """What is wrong with a run."""
    environment = {key: value for key, value in os.environ.items() if not key.startswith("GTEST_")}
    environment.update(VYR_MENDED=hex(run.bits), GTEST_FILTER=":".join(run.tests))
    environment.setdefault("VYR_SWARM_SEEDS", str(RANDOM_WORLDS))
    output = output_of_a_run(binary, environment).decode("utf-8", "replace")
    good = set(PASSED.findall(output)) | set(SKIPPED.findall(output))
    bad = set(FAILED.findall(output))
    wrong = []
    for test in run.tests:
        if test not in good | bad:
            wrong.append(f"{test} did not end, with VYR_MENDED={hex(run.bits)}")
        elif run.must_fail and test in good:
            wrong.append(f"{test} passes with everything mended: take it off {LIST}")
        elif not run.must_fail and test in bad:
            wrong.append(f"{test} fails with VYR_MENDED={hex(run.bits)}\n"
                         + output_of(test, output))
    return wrong


def output_of(test, output):
    begin = output.find(f"[ RUN      ] {test}\n")
    return output[begin:output.find(f"[  FAILED  ] {test} (", begin)][:20_000]


def main(binary, source):
    source = pathlib.Path(source)
    suites = suites_with_a_game(source)
    tests = [test for test in tests_of(binary) if test.split(".")[0] in suites]
    bits = bits_of_mendings(source)
    listed, wrong = read_list((source / LIST).read_text(encoding="utf-8"), tests, bits)
    runs = plan(tests, listed, bits["all"])
    start = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        for found in pool.map(lambda run: perform(binary, run), runs):
            wrong.extend(found)
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"{len(tests)} tests, of which {len(listed)} hold what a mending changes; {len(runs)} "
          f"runs in {time.monotonic() - start:.0f} s ({used.ru_utime + used.ru_stime:.0f} s of the "
          "processor)")
    print("\n".join(wrong))
    return 1 if wrong or not tests else 0


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2]))
