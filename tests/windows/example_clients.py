"""The client programs of examples/ serve a game: its connections go through the node, its reports come out,
and it loses nothing when the client program is killed. A client program that dies with a mutex in its hands
leaves the next one a working start."""

import contextlib
import os
import re
import signal
import time

import relay_bench
import support
from conversation import Conversation, wait_until
from relayed_transfers import PatternServer

MUTEXES = ("vyr_route_named_mutex", "vyr_restriction_named_mutex", "vyr_qos_acce_decision_named_mutex")
BYTES = 100000
# Every kind of report that a connection through a node leaves; `communication` may come more than once.
REPORTS = ("loaded: Game.exe", "log_path: ", "decision: TCP 198.51.100.10", "communication: 198.51.100.10",
           "real_negotiation: 198.51.100.20:9000 carries 198.51.100.10")  # fmt: skip


class Stage:
    def __init__(self, arguments):
        if support.DRIVE_C is None:
            support.skip("this runs in the test bed only")
        if not arguments.node.exists():
            support.skip(f"no node at {arguments.node}; the posix preset builds it")
        self.checks = support.Checks()
        self.runner = support.Runner(arguments)
        self.running = contextlib.ExitStack()
        self.node = relay_bench.Node(arguments.node)
        self.running.callback(self.node.end)
        self.server = PatternServer()
        self.folder = self.runner.stage(arguments.probes / "transfer_game.exe", "Game.exe")
        self.logs = self.runner.folder / "logs"
        self.logs.mkdir()

    def serve(self):
        client = Conversation(
            [self.runner.bin / "serve_one_game.exe", support.windows_path(self.folder / "Game.exe"),
             f"{relay_bench.NODE}:{relay_bench.NODE_PORT}", relay_bench.SERVER,
             support.windows_path(self.logs) + "\\"], self.runner.folder,
        )  # fmt: skip
        self.checks.that(client.line_with("ready"), "the client program is ready")
        return client

    def play(self):
        return Conversation(
            [self.runner.launcher, support.windows_path(self.folder / "Game.exe"), relay_bench.SERVER,
             self.server.port], self.runner.folder,
        )  # fmt: skip

    def transfer(self, game, number, what):
        answer = game.asked(f"transfer {BYTES} {BYTES}", "transfer")
        self.checks.equal(answer, f"transfer {number}: sent right, received right", what)


def rest_of(conversation):
    lines = []
    while not conversation.lines.empty():
        lines.append(conversation.lines.get())
    return lines


def windows_processes(name):
    """The ids of the native processes that run a Windows program of that name."""
    found = []
    for folder in support.pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = (folder / "cmdline").read_bytes().split(b"\0")
            if re.split(rb"[\\/]", words[0])[-1] == name.encode() and in_this_bed(folder):
                found.append(int(folder.name))
    return found


def in_this_bed(folder):
    return os.readlink(folder / "ns/net") == os.readlink("/proc/self/ns/net")


def check_reports(stage):
    client, game = stage.serve(), stage.play()
    stage.transfer(game, 1, "a connection of a served game")
    stage.checks.equal(stage.node.games(), [f"{relay_bench.SERVER}:{stage.server.port}"], "it went through the node")
    stage.checks.equal(game.end(), 0, "the game ends")
    time.sleep(0.5)  # the reports of the game's end
    stage.checks.equal(client.end(), 0, "the client program ends with its input")
    lines = rest_of(client)
    for report in REPORTS:
        stage.checks.that(any(report in line for line in lines), f"a report '{report}'", "\n".join(lines))
    total = [line for line in lines if f"sent {BYTES + 20}, received {BYTES + 1}, ended" in line]
    stage.checks.equal(len(total), 1, "the last report of the connection has all bytes:\n" + "\n".join(lines))


def check_killed_client(stage):
    """The game that is running keeps its way; a new client program takes the regions over."""
    stage.serve()
    game = stage.play()
    stage.transfer(game, 1, "a connection before the client program is killed")
    asked = len(stage.node.games())
    killed = windows_processes("serve_one_game.exe")
    stage.checks.equal(len(killed), 1, "one client program runs")
    for process in killed:
        os.kill(process, signal.SIGKILL)
    gone = wait_until(lambda: not windows_processes("serve_one_game.exe"))
    stage.checks.that(gone, "the client program is gone")
    stage.transfer(game, 2, "a connection after the client program was killed")
    stage.checks.equal(len(stage.node.games()), asked + 1, "it went through the node, too")
    client = stage.serve()
    stage.transfer(game, 3, "a connection under the next client program")
    stage.checks.that(client.line_with("decision: TCP"), "the next client program gets its reports")
    stage.checks.equal((game.end(), client.end()), (0, 0), "both end")


def check_died_with_mutexes(stage):
    """Programs that hold the mutexes are killed: the next client program and the next game go on."""
    for mutex in MUTEXES:
        holder = Conversation([stage.runner.probes / "hold_mutex.exe", mutex], stage.runner.folder)
        stage.checks.that(holder.line_with("held"), f"{mutex} is held")
        for process in windows_processes("hold_mutex.exe"):
            os.kill(process, signal.SIGKILL)
        begin = time.monotonic()
        client = stage.serve()
        game = stage.play()
        stage.transfer(game, 1, f"a game after a holder of {mutex} died")
        took_s = time.monotonic() - begin
        print(f"{mutex}: ready, started and transferred in {took_s:.1f} s")
        stage.checks.that(client.line_with("real_negotiation"), f"its reports, after {mutex}")
        stage.checks.equal((game.end(), client.end()), (0, 0), "both end")


def main():
    stage = Stage(relay_bench.parse_arguments())
    with stage.running:
        check_reports(stage)
        check_killed_client(stage)
        check_died_with_mutexes(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
