"""All bytes that a game sends and receives over relayed connections arrive: from one byte to many
megabytes, in both directions at once, over one connection and over sixty."""

import os
import socket
import struct
import threading
import time

import relay_bench
import support
from conversation import Conversation

PATTERN_PERIOD = 1048573
PIECE = 1 << 18
CONNECTIONS = 60
EACH = 1 << 18  # bytes either way over each of the sixty
PATIENCE_S = 240
LARGEST = 256 << 20
SIZES = [(1, 1), (1000, 0), (0, 1000), (1000, 1000), (1 << 20, 1 << 20), (LARGEST, LARGEST)]
ONE_WAY = [(LARGEST, 0), (0, LARGEST)]  # of 32-bit games only: a large transfer takes seconds


def make_pattern():
    word, pattern = 1, bytearray()
    while len(pattern) < PATTERN_PERIOD:
        word = (word * 1664525 + 1013904223) & 0xFFFFFFFF
        pattern.append(word >> 24)
    return bytes(pattern + pattern[:PIECE])


class PatternServer:
    """The game's server. It knows which bytes it must receive, and sends those that are requested."""

    def __init__(self):
        self.pattern = make_pattern()
        self.peers = []
        self.listener = socket.create_server((relay_bench.SERVER, 0), backlog=CONNECTIONS)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def at(self, number, offset, size):
        start = (offset + number * 7919) % PATTERN_PERIOD
        return self.pattern[start : start + size]

    def _accept(self):
        while True:
            connection, peer = self.listener.accept()
            self.peers.append(peer[0])
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        with connection:
            head = connection.recv(20, socket.MSG_WAITALL)
            if len(head) != 20:
                return
            number, up, down = struct.unpack("<IQQ", head)
            sender = threading.Thread(target=self._send, args=(connection, number, down), daemon=True)
            sender.start()
            right = self._receive(connection, number, up)
            sender.join()
            connection.sendall(b"+" if right else b"-")
            connection.recv(1)  # until the game closes

    def _send(self, connection, number, size):
        for offset in range(0, size, PIECE):
            connection.sendall(self.at(number, offset, min(PIECE, size - offset)))

    def _receive(self, connection, number, size):
        received = 0
        while received < size:
            data = connection.recv(min(PIECE, size - received))
            if not data or data != self.at(number, received, len(data)):
                return False
            received += len(data)
        return True


def check_sizes(checks, bench, game, server, sizes):
    for number, (up, down) in enumerate(sizes, 1):
        begin = time.monotonic()
        answer = game.asked(f"transfer {up} {down}", "transfer", PATIENCE_S)
        wanted = f"transfer {number}: sent right, received right"
        checks.equal(answer, wanted, f"{up} bytes up, {down} down")
        print(f"{up} bytes up, {down} down: {time.monotonic() - begin:.2f} s")
    checks.that(bench.node_is_idle(), "the node has no open connection")
    games = bench.node.games()
    checks.equal(games, [f"{relay_bench.SERVER}:{server.port}"] * len(sizes),
                 "one request to the node for each transfer")  # fmt: skip
    # The bytes that the node reports include the headers and the final byte of the server.
    carried = [(e["bytes_to_server"], e["bytes_to_client"]) for e in bench.node.named("closed")]
    checks.equal(carried, [(up + 20, down + 1) for up, down in sizes], "all of it went through the node")


def check_many(checks, bench, game, server):
    before = len(bench.node.games())
    checks.equal(game.asked(f"hold {CONNECTIONS}", "held"), f"held: {CONNECTIONS}", "all connect")
    answered = relay_bench.wait_until(
        lambda: len(bench.node.named("answered")) >= before + CONNECTIONS
    )
    checks.that(answered, "the node serves all of them at once", str(len(bench.node.named("answered"))))
    open_now = len(bench.node.command(command="connections")["connections"])
    checks.equal(open_now, CONNECTIONS, "connections at the node")
    answer = game.asked(f"move {EACH} {EACH}", "moved", PATIENCE_S)
    checks.equal(answer, f"moved: {CONNECTIONS} right of {CONNECTIONS}", "all transfer their bytes")
    checks.equal(set(server.peers), {relay_bench.NODE}, "the server saw only the node")


def main():
    arguments = relay_bench.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    folder = runner.stage(arguments.probes / "transfer_game.exe", "Game.exe")
    bench = relay_bench.Bench(arguments, runner, [folder / "Game.exe"], log_level=5)
    server = PatternServer()
    with bench.running:
        command = [runner.launcher, support.windows_path(folder / "Game.exe"),
                   relay_bench.SERVER, server.port]  # fmt: skip
        game = Conversation(command, folder)
        bench.running.callback(game.end)
        check_sizes(checks, bench, game, server, SIZES + (ONE_WAY if arguments.kind == "x86" else []))
        check_many(checks, bench, game, server)
        checks.equal(game.end(), 0, "the game's exit code")
    checks.end()


if __name__ == "__main__":
    main()
