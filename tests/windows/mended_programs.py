"""With everything mended, unmodified third-party programs do the same work as without the library,
whatever becomes of the nodes: all are well, the first refuses, the first is silent, all refuse, all
are silent. Compared are exit codes, what each program has to show for its work, all that its server
has heard, and by which way it came. No step takes longer than without the library by more than
2.5 s.

Each state of the nodes has a game server's address and two nodes of its own, so that all are there at
once. What took too long, or came by another way, is run again, alone: a busy machine takes its time,
but changes no byte.
"""

import concurrent.futures
import dataclasses
import datetime
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import mended_works
import real_programs
import relay_bench
import support

PLAIN = "plain"
REFUSES, SILENT = None, ("--on-request", "silent")  # nothing listens where a node refuses
WELL = ()
# state: its two nodes, and which of them carries; where neither does, the game itself connects
STATES = {
    "all-well": (WELL, WELL, 0),
    "first-refuses": (REFUSES, WELL, 1),
    "first-silent": (SILENT, WELL, 1),
    "all-refuse": (REFUSES, REFUSES, None),
    "all-silent": (SILENT, SILENT, None),
}
COLUMNS = (PLAIN, *STATES)
SLOWER_BY_MS = 2500
AT_ONCE = 4
ATTEMPTS = 5
LONGEST_S = 40
FIRST_CONTROL_PORT = 7101
LOG_LINES = 25
# The step of a program that does not tell its steps: from its connect, as the library's log has it, to
# the server. Without the library it takes no time on one machine.
REACHES = "reaches-server"
LOG_TIME = "[%Y-%m-%d %H:%M:%S.%f"
MOST_AGAIN = 12  # cells; if more differ, it is not the machine
# Program: why it can differ, in whatever state; in some state it must. It is run and shown all the same.
NOT_MENDED = {
    "ruby-leaves": "It ends without WSACleanup. The system ends the thread that carries before any library "
    "is told, and a library that is told may neither wait nor call Winsock, so what that thread still "
    "has is lost.",
}
# Program: what has been seen of it now and then on a busy machine, and is not explained yet. What
# differs is printed, and does not fail.
UNEXPLAINED = {
    "rust-info": "Its work is done and its socket closed, and yet the process does not end.",
}

GAME = """
[[game]]
game_id = 10001
uin = '20001'
game_paths = [{games}]
net_mode = ['TCP', 'UDP']
log_level = {log_level}
log_path = '{logs}'
acc_mode = 1
mend = 'all'
"""
STATE = """
[[node]]
proxy_name = '{state}, first'
proxy_addr = '{first}'
proxy_port = 9000
proxy_idc = {first_number}
section1_delay = 10
surport_isps = 0xffffffff

[[node]]
proxy_name = '{state}, second'
proxy_addr = '{second}'
proxy_port = 9000
proxy_idc = {second_number}
section1_delay = 11
surport_isps = 0xffffffff

[[idc]]
game_idc = {idc}
addresses = ['{server}']

[[route]]
game_idc = {idc}
entry_name = '{state}'
direct_delay = 60
ref_default = {{ node = '{state}, first', decision = 'DECISION_ACCE', section2_delay = 12, last_node = '{state}, first' }}
top_refs = [
  {{ node = '{state}, first', section2_delay = 12, last_node = '{state}, first' }},
  {{ node = '{state}, second', section2_delay = 13, last_node = '{state}, second' }},
]
"""


def server_of(column):
    return f"198.51.100.{10 + COLUMNS.index(column)}"


def node_of(state, which):
    return f"198.51.100.{20 + 2 * list(STATES).index(state) + which}"


def carrier_of(column):
    """The address that the server sees."""
    carrier = STATES[column][2] if column in STATES else None
    return real_programs.PLAYER if carrier is None else node_of(column, carrier)


def tables():
    text = GAME
    for number, state in enumerate(STATES):
        filled = STATE.format(
            state=state, first=node_of(state, 0), second=node_of(state, 1), idc=1001 + number,
            server=server_of(state), first_number=1 + 2 * number, second_number=2 + 2 * number,
        )  # fmt: skip
        text += filled.replace("{", "{{").replace("}", "}}")
    return text


@dataclasses.dataclass
class Run:
    """What has been seen of one run."""

    code: object
    result: object
    heard: list
    peers: set
    steps: dict
    took: int
    said: str
    log: str

    def changes(self, plain):
        found = []
        if self.code != plain.code:
            found.append(f"exit code {self.code}, plain {plain.code}")
        if self.result != plain.result:
            found.append("result " + unlike(self.result, plain.result))
        if self.heard != plain.heard:
            found.append("the server heard " + unlike(self.heard, plain.heard))
        return found

    def detours(self, plain, carrier):
        """What a busy machine may be the reason of."""
        found = [
            f"{step} took {ms} ms, plain {plain.steps[step]} ms"
            for step, ms in self.steps.items()
            if step in plain.steps and ms > plain.steps[step] + SLOWER_BY_MS
        ]
        if self.peers != {carrier}:
            found.append(f"carried by {sorted(self.peers)}, not by {carrier}")
        return found


def unlike(found, plain):
    """Both from shortly before they differ."""
    texts = repr(found), repr(plain)
    at = max(0, len(os.path.commonprefix(texts)) - 30)
    parts = [f"…{text[at : at + 160]}… ({len(text)} characters)" for text in texts]
    return "\n    plain ".join(parts)


def told_steps(path):
    lines = path.read_text().splitlines() if path.exists() else []
    return {step: int(ms) for step, ms in map(str.split, lines)}


def reaching(work, log):
    begin = next((line for line in log.splitlines() if f"game server IP({work.host})" in line), None)
    reached = work.server.peers.first_at
    if begin is None or reached is None:
        return {REACHES: 0}
    asked = datetime.datetime.strptime(begin.partition("]")[0], LOG_TIME).timestamp()
    return {REACHES: int((reached - asked) * 1000)}


class Stage:
    def __init__(self, arguments):
        self.arguments = arguments
        self.runner = support.Runner(arguments)
        self.programs = real_programs.programs_folder(arguments.kind)
        paths = sorted({self.programs / work.program for work in mended_works.WORKS})
        self.bench = relay_bench.Bench(
            arguments, self.runner, paths, arguments.log_level, tables(), first_node=False
        )
        self._start_nodes()

    def by_hand(self):
        words = {name: getattr(self.arguments, name) for name in ("bin", "probes", "kind", "node")}
        options = " ".join(f"--{name} {word}" for name, word in words.items())
        return f"scripts/testbed python3 {sys.argv[0]} {options}"

    def _start_nodes(self):
        control_port = FIRST_CONTROL_PORT
        for state, nodes in STATES.items():
            for which, options in enumerate(nodes[:2]):
                if options is REFUSES:
                    continue
                address = node_of(state, which)
                node = relay_bench.Node(self.arguments.node, address, control_port, options)
                self.bench.running.callback(node.end)
                control_port += 1

    def run(self, kind, column):
        work = kind(server_of(column))
        folder = pathlib.Path(tempfile.mkdtemp(prefix=f"{work.name}-{column}-", dir=self.runner.folder))
        work.prepare(folder)
        launcher = [] if column == PLAIN else [self.runner.launcher, "--quiet", "--"]
        program = support.windows_path(self.programs / work.program)
        before = set(self.bench.logs.glob("*"))
        code, said, errors, took = self._ended(work, folder, [*launcher, program, *work.arguments()])
        heard = work.heard()
        log = self._log(before, work.server.name)
        steps = told_steps(folder / "steps.txt") or reaching(work, log)
        return Run(code, work.result(folder, said), heard, set(work.server.peers), steps, took,
                   said + errors, log)  # fmt: skip

    def _ended(self, work, folder, words):
        """Its exit code, output, errors and the milliseconds of all. Its output goes to a
        file: where Wine gives the JavaScript runtime a pipe, it fails."""
        out, errors = folder / "said.txt", folder / "errors.txt"
        begin = time.monotonic()
        with out.open("wb") as said, errors.open("wb") as complained:
            try:
                code = subprocess.run(
                    [str(word) for word in (support.WINE, *words)], cwd=folder, stdin=subprocess.DEVNULL,
                    stdout=said, stderr=complained, timeout=LONGEST_S, check=False,
                    env={**os.environ, **work.environment},
                ).returncode  # fmt: skip
            except subprocess.TimeoutExpired:
                code = f"none in {LONGEST_S} s"
        took = int((time.monotonic() - begin) * 1000)
        return code, out.read_text("utf-8", "replace"), errors.read_text("utf-8", "replace"), took

    def _log(self, before, server):
        """The library's log of the run that talked to that server."""
        for path in set(self.bench.logs.glob("*")) - before:
            text = path.read_bytes().decode("gbk", "replace")
            if server.rpartition(":")[2] in text:
                if self.arguments.keep:
                    shutil.copy(path, self.arguments.keep)
                return text
        return ""


class Cells:
    """All runs that were asked for, and what differs in them."""

    def __init__(self, stage, works, states):
        self.stage = stage
        self.works = works
        self.states = states
        self.runs = {}
        self.again = {}  # cell: why it was run again

    def differences(self, work, state):
        return self.changes(work, state) + self.detours(work, state)

    def changes(self, work, state):
        return self.runs[work, state].changes(self.runs[work, PLAIN])

    def detours(self, work, state):
        return self.runs[work, state].detours(self.runs[work, PLAIN], carrier_of(state))

    def look(self):
        cells = [(work, column) for work in self.works for column in (PLAIN, *self.states)]
        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            runs = pool.map(lambda cell: self.stage.run(*cell), cells)
            self.runs = dict(zip(cells, runs, strict=True))
        for work in self.works:
            for state in self.states:
                if work.name not in NOT_MENDED and len(self.again) < MOST_AGAIN:
                    self._look_again(work, state)

    def _look_again(self, work, state):
        for _ in range(ATTEMPTS - 1):
            found = self.detours(work, state)
            if not found or self.changes(work, state):
                return
            self.again.setdefault((work, state), []).append((found, self.runs[work, state].log))
            print(f"once more, alone: {work.name}, {state}: {'; '.join(found)}", flush=True)
            self.runs[work, PLAIN] = self.stage.run(work, PLAIN)
            self.runs[work, state] = self.stage.run(work, state)

    def rows(self):
        """Milliseconds by program, step and column."""
        columns = (PLAIN, *self.states)
        for work in self.works:
            for step in self.runs[work, PLAIN].steps:
                taken = {column: self.runs[work, column].steps.get(step) for column in columns}
                yield work, step, taken

    def print_table(self):
        columns = (PLAIN, *self.states)
        print(f"{'ms':34}" + "".join(f"{column:>15}" for column in columns))
        for work, step, taken in self.rows():
            line = f"{work.name + ' ' + step:34}"
            for column in columns:
                mark = "*" if (work, column) in self.again else " "
                line += f"{taken[column] if taken[column] is not None else '-':>14}{mark}"
            print(line)
        if self.again:
            print("* run again, alone")

    def as_json(self):
        cells = [
            {"program": work.name, "state": state, "differences": self.differences(work, state),
             "again": [found for found, _ in self.again.get((work, state), [])]}
            for work in self.works for state in self.states
        ]  # fmt: skip
        steps = [{"program": work.name, "step": step, "ms": taken} for work, step, taken in self.rows()]
        return json.dumps({"cells": cells, "steps": steps}, indent=1)


def check(checks, cells):
    for work in cells.works:
        plain = cells.runs[work, PLAIN]
        done = plain.code == work.exit_code and (plain.heard or plain.result)
        said = f"exit code {plain.code}\n{plain.said[-1000:]}"
        checks.that(done, f"{work.name}, plain: it does its work", said)
        checks.equal(plain.peers, {real_programs.PLAYER}, f"{work.name}, plain: who talks to the server")
        if reason := NOT_MENDED.get(work.name):
            found = {state: cells.differences(work, state) for state in cells.states}
            print(f"{work.name} differs in {[state for state in found if found[state]]}: {reason}")
            some = any(found.values()) or len(found) < len(STATES)
            checks.that(some, f"{work.name} no longer differs, and is in NOT_MENDED")
            continue
        for state in cells.states:
            check_cell(checks, cells, work, state)


def check_cell(checks, cells, work, state):
    found = cells.differences(work, state)
    what = f"{work.name}, {state}: as without the library"
    if found and work.name in UNEXPLAINED:
        print(f"UNEXPLAINED: {work.name}, {state}: {'; '.join(found)}: {UNEXPLAINED[work.name]}")
        return
    run = cells.runs[work, state]
    log = "\n".join(run.log.splitlines()[-LOG_LINES:])
    by_hand = f"by hand: {cells.stage.by_hand()} --only {work.name} --state {state} --log-level 0"
    checks.that(not found, what, "\n  ".join(
        [*found, by_hand, f"it said: {run.said[-500:]}", f"its log ends:\n{log}"]))  # fmt: skip


def main():
    names = [work.name for work in mended_works.WORKS]
    arguments = support.parse_arguments(
        ("--node", {"type": pathlib.Path, "required": True}),
        ("--only", {"choices": names, "action": "append", "help": "this program"}),
        ("--state", {"choices": list(STATES), "action": "append", "help": "this state of the nodes"}),
        ("--log-level", {"type": int, "default": 4, "help": "of the library; 0 says most"}),
        ("--keep", {"type": pathlib.Path, "help": "copy the library's logs into this folder"}),
        ("--json", {"action": "store_true", "help": "print the results as JSON"}),
    )
    checks = support.Checks()
    stage = Stage(arguments)
    works = [work for work in mended_works.WORKS if work.name in (arguments.only or names)]
    cells = Cells(stage, works, [state for state in STATES if state in (arguments.state or STATES)])
    begin = time.monotonic()
    with stage.bench.running:
        cells.look()
    if arguments.json:
        print(cells.as_json())
    else:
        cells.print_table()
    print(f"{len(works) * (1 + len(cells.states))} runs in {time.monotonic() - begin:.0f} s")
    check(checks, cells)
    checks.end()


if __name__ == "__main__":
    main()
