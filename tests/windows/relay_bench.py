"""A fixture for relayed games: native nodes, the client program that serves the tables, and access to
the library's log of a game."""

import contextlib
import json
import socket
import subprocess
import threading

import support
from conversation import Conversation, wait_until

SERVER = "198.51.100.10"  # in the IP table
NODE = "198.51.100.20"
NODE_PORT = 9000

# For str.format, as all tables here.
GAME = """
[[game]]
game_id = {number}
uin = '20001'
game_paths = [{games}]
net_mode = {protocols}
log_level = {log_level}
log_path = '{logs}'
acc_mode = 1
"""
ROUTES = """
[[node]]
proxy_name = 'node one'
proxy_addr = '198.51.100.20'
proxy_port = 9000
proxy_idc = 1
section1_delay = 10
surport_isps = 0xffffffff

[[idc]]
game_idc = 1001
addresses = ['198.51.100.10']

[[route]]
game_idc = 1001
entry_name = 'east'
direct_delay = 60
ref_default = {{ node = 'node one', decision = 'DECISION_ACCE', section2_delay = 12, last_node = 'node one' }}
"""
GAMES = GAME.replace("{number}", "10001").replace("{protocols}", "['TCP']") + ROUTES


class Node:
    """`vyr_node`, with its events and its control port."""

    def __init__(self, program, address=NODE, control_port=7101, options=()):
        self.events = []
        self.control = ("127.0.0.1", control_port)
        self.process = subprocess.Popen(
            [program, "--listen", f"{address}:{NODE_PORT}", "--control", f"127.0.0.1:{control_port}",
             *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        first = json.loads(self.process.stdout.readline())
        assert first["event"] == "listening", first
        threading.Thread(target=self._collect, daemon=True).start()

    def _collect(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line))

    def named(self, event):
        return [line for line in self.events if line["event"] == event]

    def games(self):
        """The game servers that have been requested from it, in order."""
        return [line["game"] for line in self.named("request")]

    def command(self, **command):
        with socket.create_connection(self.control, timeout=support.LONGEST_RUN_S) as control:
            control.sendall(json.dumps(command).encode() + b"\n")
            return json.loads(control.makefile().readline())

    def end(self):
        self.process.terminate()
        self.process.wait(support.LONGEST_RUN_S)


class Bench:
    """`games` are the paths of the programs to be served, `tables` is the client's file for them.
    Without `first_node` the test starts its nodes itself."""

    def __init__(self, arguments, runner, games, log_level=0, tables=GAMES, first_node=True):
        support.needs_bed(arguments.node)
        self.runner = runner
        self.running = contextlib.ExitStack()
        if first_node:
            self.node = Node(arguments.node)
            self.running.callback(self.node.end)
        self.logs = runner.folder / "logs"
        self.logs.mkdir()
        self._serve_tables(games, log_level, tables)

    def _serve_tables(self, games, log_level, tables):
        path = self.runner.folder / "games.toml"
        names = ", ".join(f"'{support.windows_path(game)}'" for game in games)
        logs = support.windows_path(self.logs) + "\\"
        path.write_text(tables.format(games=names, logs=logs, log_level=log_level))
        command = [support.client_program(self.runner.bin), "serve", "--until-eof", support.windows_path(path)]
        self.client = Conversation(command, self.runner.folder)
        self.running.callback(self.client.end)
        if not self.client.line_with("ready"):
            raise RuntimeError("the client does not become ready")

    def log(self):
        """All logs. A log that is being written may lack its last lines."""
        return b"".join(file.read_bytes() for file in self.logs.glob("*.log")).decode("gbk", "replace")

    def node_is_idle(self):
        """Waits until all connections are closed and all events about them have been read."""
        idle = wait_until(lambda: not self.node.command(command="connections")["connections"])
        return idle and wait_until(
            lambda: len(self.node.named("closed")) == len(self.node.named("accepted"))
        )


def parse_arguments(*extra):
    return support.parse_arguments(("--node", {"type": support.pathlib.Path, "required": True}), *extra)
