"""Starts and ends Winsock a hundred times in one process during relayed traffic. At each end the
library is unloaded, as Winsock does, and its cleanup is called before the end or after it. The process
keeps running, the traffic of each round goes the right way, and nothing is left behind."""

import json
import os
import re
import socket
import threading

import relay_bench
import support

# A process gets one relay worker, and the library stays in a process that it has hooked: after the
# first end, everything is direct. If every round were accelerated, this would be True.
EVERY_ROUND_ACCELERATED = False

ROUNDS = int(os.environ.get("VYR_RESTART_ROUNDS", "20"))
PROCESSES = max(3, ROUNDS // 4)  # of two rounds, for each order; each has an end during relayed traffic
UNSERVED_ROUNDS = 20
# The compiler's runtime creates these when the library is loaded, and does not free them at its unload.
RUNTIME_HANDLES = {"semaphore": 2}
# A stream in progress keeps both ends of its relay open. If Winsock's calls still work at its end, the
# library closes them.
OPEN_ENDS = {"before": 0, "after": 2}
PLAYER = "198.51.100.1"  # the source address of direct traffic
LONGEST_S = 400
LONGEST_CLEANUP_MS = 3000  # 200 ms for the worker, on a busy machine
# What an allocator may keep. In that many rounds, a leaked table or thread stack would be more.
MOST_MEMORY_KB = 2048
NOT_STARTED = 10093
ROUND = re.compile(r"^round (\d+): stream from (\S+), datagrams from (\S+), cleanup 0 in (\d+) ms$", re.M)
TABLES = relay_bench.GAMES.replace("['TCP']", "['TCP', 'UDP']")


class TellingServer:
    """Reports the peer's address: in the first line of a stream, which it echoes from then on, and in
    its answer to each datagram."""

    def __init__(self, address):
        self.stream = socket.create_server((address, 0), backlog=64)
        self.port = self.stream.getsockname()[1]
        self.datagram = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.datagram.bind((address, self.port))
        threading.Thread(target=self._accept, daemon=True).start()
        threading.Thread(target=self._answer, daemon=True).start()

    def _accept(self):
        while True:
            connection, peer = self.stream.accept()
            threading.Thread(target=self._tell, args=(connection, peer[0]), daemon=True).start()

    @staticmethod
    def _tell(connection, peer):
        with connection:
            try:
                connection.sendall(peer.encode() + b"\n")
                while data := connection.recv(65536):
                    connection.sendall(data)
            except OSError:
                pass  # the process has ended in the middle of it

    def _answer(self):
        while True:
            _, peer = self.datagram.recvfrom(65536)
            self.datagram.sendto(peer[0].encode(), peer)


class Stage(support.Stage):
    def __init__(self, arguments):
        super().__init__(arguments, arguments.node)
        probe = arguments.probes / "restarts.exe"
        self.game = self.runner.stage(probe, "Game.exe")
        self.other = self.runner.stage(probe, "Other.exe")
        self.bench = relay_bench.Bench(arguments, self.runner, [self.game / "Game.exe"], tables=TABLES)
        self.server = TellingServer(relay_bench.SERVER)

    def run(self, what, folder, name, rounds, options):
        words = [relay_bench.SERVER, str(self.server.port), str(rounds)]
        result = self.runner.launch(folder, name, words, options, timeout=LONGEST_S)
        result.rounds = ROUND.findall(result.output)
        end = result.output[-2000:] + result.errors
        self.checks.equal(result.code, 0, f"{what}: exit code\n{end}")
        self.checks.equal(len(result.rounds), rounds, f"{what}: rounds\n{end}")
        return result


def belongings(result, when):
    found = re.search(rf"^{when}: (.*)$", result.output, re.M)
    return json.loads(found.group(1)) if found else {}


def check_nothing_left(checks, what, result, reloads=0, open_ends=0):
    """The first round may create what lives as long as the process. Later rounds must not, except for
    what the compiler's runtime keeps for each load of the library."""
    begin, first, end = (belongings(result, when) for when in ("begin", "after the first", "end"))
    if not checks.that(begin and first and end, f"{what}: it reports its resources", result.output[-2000:]):
        return
    print(f"{what}: begin {begin}\n  after the first {first}\n  end {end}")
    checks.equal(end["threads"], begin["threads"], f"{what}: threads at the end")
    left = end["sockets"] - begin["sockets"]
    checks.that(left <= open_ends, f"{what}: sockets at the end", f"{left} more")
    checks.equal(end["tls_index"], first["tls_index"], f"{what}: no thread-local slot left")
    kept = {kind.lower(): count * reloads for kind, count in RUNTIME_HANDLES.items()}
    more = {kind: count for kind, count in end["handles"].items()
            if count > first["handles"].get(kind, 0) + kept.get(kind.lower(), 0)}  # fmt: skip
    checks.equal(more, {}, f"{what}: no handles left")
    grown = end["memory_kb"] - first["memory_kb"]
    checks.that(grown <= MOST_MEMORY_KB, f"{what}: no memory left", f"{grown} KB more")


def check_cleanups(checks, what, result, unloaded):
    cleanups = result.cleanups()
    checks.that(cleanups, f"{what}: the cleanup is called")
    checks.equal({cleanup["result"] for cleanup in cleanups}, {0}, f"{what}: results of the cleanups")
    gone = [cleanup["unloaded"] for cleanup in cleanups]
    checks.equal(any(gone), unloaded, f"{what}: the library leaves the process")
    slowest = max((int(ms) for *_, ms in result.rounds), default=0)
    print(f"{what}: the slowest of {len(result.rounds)} cleanups took {slowest} ms")
    checks.that(slowest < LONGEST_CLEANUP_MS, f"{what}: the slowest cleanup", f"{slowest} ms")


def check_after_the_end(checks, what, result):
    for call in ("send", "closesocket", "select"):
        words = f"{call} after the end: failed with {NOT_STARTED}"
        checks.that(words in result.output, f"{what}: {words}", result.output[:1000])
    checks.that("socket after the end: none" in result.output, f"{what}: no socket after the end")


def check_game(stage, order):
    what, checks = f"cleanup {order} the end", stage.checks
    result = stage.run(what, stage.game, "Game.exe", ROUNDS, ["--cleanup", order])
    by_node, direct = (relay_bench.NODE,) * 2, (PLAYER,) * 2
    ways = [(stream, datagrams) for _, stream, datagrams, _ in result.rounds]
    checks.equal(ways[:1], [by_node], f"{what}: the first round is accelerated")
    later = by_node if EVERY_ROUND_ACCELERATED else direct
    odd = [f"round {i}: {way}" for i, way in enumerate(ways[1:], 2) if way != later]
    checks.equal(odd, [], f"{what}: all later rounds go through {later[0]}")
    check_nothing_left(checks, what, result, open_ends=OPEN_ENDS[order])
    check_cleanups(checks, what, result, unloaded=EVERY_ROUND_ACCELERATED)
    check_after_the_end(checks, what, result)


def check_many_ends(stage, order):
    """Because later rounds are direct, each process has only one end during relayed traffic."""
    by_node, later = relay_bench.NODE, relay_bench.NODE if EVERY_ROUND_ACCELERATED else PLAYER
    wanted = [[by_node] * 2, [later] * 2]
    for i in range(PROCESSES):
        what = f"process {i}, cleanup {order} the end"
        result = stage.run(what, stage.game, "Game.exe", 2, ["--cleanup", order])
        ways = [both for _, *both, _ in result.rounds]
        stage.checks.equal(ways, wanted, f"{what}: ways")
        begin, end = belongings(result, "begin"), belongings(result, "end")
        stage.checks.equal(end.get("threads"), begin.get("threads"), f"{what}: threads at the end")
        left = end.get("sockets", 99) - begin.get("sockets", 0)
        stage.checks.that(left <= OPEN_ENDS[order], f"{what}: sockets at the end", f"{left} more")


def check_unserved(stage, options):
    what, checks = f"unserved, {' '.join(options)}", stage.checks
    result = stage.run(what, stage.other, "Other.exe", UNSERVED_ROUNDS, options)
    ways = {way for _, *both, _ in result.rounds for way in both}
    checks.equal(ways, {PLAYER}, f"{what}: all is direct")
    check_nothing_left(checks, what, result, reloads=UNSERVED_ROUNDS)


def main():
    stage = Stage(relay_bench.parse_arguments())
    with stage.bench.running:
        for order in ("before", "after"):
            check_game(stage, order)
            check_many_ends(stage, order)
            check_unserved(stage, ["--cleanup", order])
        check_unserved(stage, ["--keep-loaded"])
    stage.checks.end()


if __name__ == "__main__":
    main()
