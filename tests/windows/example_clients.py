"""The client programs of examples/ serve a game: its connections go through the node, its reports come out,
and it loses nothing when the client program is killed. A client program that dies with a mutex in its hands
leaves the next one a working start. The one in Python runs outside Wine and has its Windows calls made inside
(python_client.py)."""

import contextlib
import os
import pathlib
import re
import signal
import sys
import time

import relay_bench
import support
from conversation import Conversation, wait_until
from relayed_transfers import PatternServer

sys.path.insert(0, str(support.ROOT / "scripts"))
from bed_processes import windows_processes  # noqa: E402

MUTEXES = ("vyr_route_named_mutex", "vyr_restriction_named_mutex", "vyr_qos_acce_decision_named_mutex")
BYTES = 100000
MOMENTS = 12  # at which a client program is killed, from its first moment on
MOMENT_S = 0.025


class ClientInC:
    # Every kind of report that a connection through a node leaves; `communication` may come more than once.
    reports = ("loaded: Game.exe", "log_path: ", "decision: TCP 198.51.100.10", "communication: 198.51.100.10",
               "real_negotiation: 198.51.100.20:9000 carries 198.51.100.10")  # fmt: skip
    ended = rf"sent {BYTES + 20}, received {BYTES + 1}, ended"
    decision, negotiation, process = "decision: TCP", "real_negotiation", "serve_one_game.exe"

    @staticmethod
    def start(runner, words):
        return Conversation([runner.bin / "serve_one_game.exe", *words], runner.folder)


class ClientInPython:
    reports = ('"process_name": "Game.exe"', '"event": "log_path"', '"event": "decision"',
               '"event": "communication"', '"proxy_ip": "198.51.100.20", "proxy_port": 9000')  # fmt: skip
    ended = rf'(?=.*"ended": 1\b)(?=.*"total_sent_bytes": {BYTES + 20}\b)(?=.*"total_recv_bytes": {BYTES + 1}\b)'
    decision, negotiation, process = '"event": "decision"', '"event": "real_negotiation"', "windows_calls.exe"

    @staticmethod
    def start(runner, words):
        command = [sys.executable, "-B", pathlib.Path(__file__).parent / "python_client.py",
                   runner.probes / "windows_calls.exe", runner.folder, *words]  # fmt: skip
        return Conversation(command, runner.folder, through=())


class Stage(support.Stage):
    def __init__(self, arguments, client):
        super().__init__(arguments, arguments.node)
        self.client = client
        self.running = contextlib.ExitStack()
        self.node = relay_bench.Node(arguments.node)
        self.running.callback(self.node.end)
        self.server = PatternServer()
        self.folder = self.runner.stage(arguments.probes / "transfer_game.exe", "Game.exe")
        self.logs = self.runner.folder / "logs"
        self.logs.mkdir()

    def start_client(self):
        words = [support.windows_path(self.folder / "Game.exe"), f"{relay_bench.NODE}:{relay_bench.NODE_PORT}",
                 relay_bench.SERVER, support.windows_path(self.logs) + "\\"]  # fmt: skip
        return self.client.start(self.runner, words)

    def serve(self):
        client = self.start_client()
        self.checks.that(client.line_with("ready"), "the client program is ready")
        return client

    def kill_client(self):
        """Both processes of the one in Python: its end would end the other one, too, but later."""
        killed = wait_until(lambda: windows_processes(self.client.process))
        for process in killed:
            os.kill(process, signal.SIGKILL)
        gone = wait_until(lambda: not windows_processes(self.client.process))
        self.checks.that(killed and gone, "the client program is killed", f"{killed}")

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


def check_reports(stage):
    client, game = stage.serve(), stage.play()
    stage.transfer(game, 1, "a connection of a served game")
    stage.checks.equal(stage.node.games(), [f"{relay_bench.SERVER}:{stage.server.port}"], "it went through the node")
    stage.checks.equal(game.end(), 0, "the game ends")
    time.sleep(0.5)  # the reports of the game's end
    stage.checks.equal(client.end(), 0, "the client program ends with its input")
    lines = rest_of(client)
    for report in stage.client.reports:
        stage.checks.that(any(report in line for line in lines), f"a report '{report}'", "\n".join(lines))
    total = [line for line in lines if re.search(stage.client.ended, line)]
    stage.checks.equal(len(total), 1, "the last report of the connection has all bytes:\n" + "\n".join(lines))


def check_killed_client(stage):
    """The game that is running keeps its way; a new client program takes the regions over."""
    stage.serve()
    game = stage.play()
    stage.transfer(game, 1, "a connection before the client program is killed")
    asked = len(stage.node.games())
    stage.kill_client()
    stage.transfer(game, 2, "a connection after the client program was killed")
    stage.checks.equal(len(stage.node.games()), asked + 1, "it went through the node, too")
    client = stage.serve()
    stage.transfer(game, 3, "a connection under the next client program")
    stage.checks.that(client.line_with(stage.client.decision), "the next client program gets its reports")
    stage.checks.equal((game.end(), client.end()), (0, 0), "both end")


def check_killed_at_any_moment(stage):
    """While it opens the regions, writes the tables and takes reports out: a running game loses nothing."""
    client = stage.serve()
    game = stage.play()
    stage.transfer(game, 1, "a connection before the client programs are killed")
    asked = len(stage.node.games())
    for moment in range(MOMENTS):
        stage.kill_client()
        client = stage.start_client()
        wait_until(lambda: windows_processes(stage.client.process))
        time.sleep(moment * MOMENT_S)
        stage.kill_client()
        stage.transfer(game, 2 * moment + 2, f"a connection after a kill at moment {moment}")
        client = stage.serve()
        stage.transfer(game, 2 * moment + 3, f"a connection under the client program after moment {moment}")
    stage.checks.equal(len(stage.node.games()), asked + 2 * MOMENTS, "all went through the node")
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
        stage.checks.that(client.line_with(stage.client.negotiation), f"its reports, after {mutex}")
        stage.checks.equal((game.end(), client.end()), (0, 0), "both end")


def main():
    clients = {"c": ClientInC, "python": ClientInPython}
    arguments = relay_bench.parse_arguments(("--client", {"choices": tuple(clients), "required": True}))
    stage = Stage(arguments, clients[arguments.client])
    with stage.running:
        check_reports(stage)
        check_killed_client(stage)
        check_killed_at_any_moment(stage)
        check_died_with_mutexes(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
