"""A game's pings through raw sockets. Pings of a relayed server never leave the machine and are
answered after the delay of the server's route. All other pings are really sent. The native side
listens to all echo requests in the bed, so it knows which were sent."""

import json
import re
import socket
import struct
import subprocess
import threading

import relay_bench
import support
from conversation import Conversation, wait_until

RELAYED = "198.51.100.10"  # through node one: 10 ms to the node, 12 ms after it
DIRECT = "198.51.100.11"  # listed, but not worth a node
WITHOUT_DELAY = "198.51.100.12"  # relayed, with a route that has no delays
UNKNOWN = "198.51.100.13"  # in no table

# How early a reply may be, and how late on a busy machine.
EARLY_MS = 5
LATE_MS = 200
FORGED_TTL, REAL_TTL = 54, 64
GAME_PORT = 7000
BEAT_MS = 30  # how long the sample game's server waits before it answers
IN_FLIGHT = 520  # more than can be kept without an allocation

TABLES = (
    relay_bench.GAMES.replace("['TCP']", "['TCP', 'UDP']")
    + """
[[node]]
proxy_name = 'node zero'
proxy_addr = '198.51.100.21'
proxy_port = 9000
proxy_idc = 2
surport_isps = 0xffffffff

[[idc]]
game_idc = 1002
addresses = ['198.51.100.11']

[[idc]]
game_idc = 1003
addresses = ['198.51.100.12']

[[route]]
game_idc = 1002
entry_name = 'near'
ref_default = {{ node = 'node one', decision = 'DECISION_NOT_ACCE', section2_delay = 12, last_node = 'node one' }}

[[route]]
game_idc = 1003
entry_name = 'unmeasured'
ref_default = {{ node = 'node zero', decision = 'DECISION_ACCE', last_node = 'node zero' }}
"""
)


class Network:
    """Receives every echo request in the bed."""

    def __init__(self):
        self.requests = []  # (address, size)
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        while True:
            packet = self.socket.recv(65536)
            message = packet[(packet[0] & 15) * 4 :]
            if message[0] == 8:
                self.requests.append((socket.inet_ntoa(packet[16:20]), len(message)))

    def drained(self, marker):
        """Waits for all earlier requests: sends one of a unique size and waits for its arrival."""
        message = struct.pack(">BBHHH", 8, 0, 0xF7FF, 0, 0) + bytes(marker)
        with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as sender:
            sender.sendto(message, ("198.51.100.19", 0))
        mark = ("198.51.100.19", len(message))
        wait_until(lambda: mark in self.requests)
        return [request for request in self.requests if request[0] != mark[0]]


class Stage(support.Stage):
    def __init__(self, arguments):
        super().__init__(arguments, arguments.node)
        self.folder = self.runner.stage(arguments.probes / "ping_game.exe", "Game.exe")
        self.sample = self.runner.stage(self.runner.bin / "vyr_game.exe", "vyr_game.exe")
        self.native_game = arguments.game
        self.network = Network()
        self.seen = 0
        self.marker = 1000
        games = [self.folder / "Game.exe", self.sample / "vyr_game.exe"]
        self.bench = relay_bench.Bench(arguments, self.runner, games, 0, TABLES)

    def went_out(self):
        """The requests that have reached the network since the last call."""
        self.marker += 2
        requests = self.network.drained(self.marker)
        new, self.seen = requests[self.seen :], len(requests)
        return new

    def start(self, program):
        command = [self.runner.launcher, support.windows_path(program)]
        game = Conversation(command, program.parent)
        self.bench.running.callback(game.end)
        return game


def reply_to(game, line):
    """Size, milliseconds and time to live of the reply; None if there is no reply."""
    answer = game.asked(line, "reply: ")
    found = re.match(r"reply: (\d+) bytes after (\d+) ms, ttl (\d+)", answer)
    return tuple(map(int, found.groups())) if found else None


def check_held(stage, game, address, lag, size=64):
    replies = [reply_to(game, f"ping {address} {size}") for _ in range(3)]
    what = f"pings of {address}"
    checks = stage.checks
    if checks.that(all(replies), f"{what} are answered", str(replies)):
        checks.equal({(reply[0], reply[2]) for reply in replies}, {(size + 20, FORGED_TTL)}, what)
        times = [reply[1] for reply in replies]
        checks.that(min(times) >= lag - EARLY_MS, f"{what}: none before the delay of {lag} ms", str(times))
        checks.that(min(times) <= lag + LATE_MS, f"{what}: soon after it", str(times))
        print(f"{what}: {times} ms, by its route {lag} ms")
    checks.equal(stage.went_out(), [], f"{what} never leave the machine")


def check_goes_out(stage, game, line, address, size):
    reply = reply_to(game, line)
    stage.checks.equal(stage.went_out(), [(address, size)], f"'{line}' is really sent")
    if stage.checks.that(reply, f"'{line}' is answered"):
        stage.checks.equal((reply[0], reply[2]), (size + 20, REAL_TTL), f"'{line}': by the server itself")


def check_answers(stage, game):
    check_held(stage, game, RELAYED, 22)
    check_held(stage, game, RELAYED, 22, size=8)
    check_held(stage, game, RELAYED, 22, size=256)
    check_held(stage, game, WITHOUT_DELAY, 20)
    check_held(stage, game, UNKNOWN, 50)
    check_goes_out(stage, game, f"ping {DIRECT} 64", DIRECT, 64)
    check_goes_out(stage, game, f"ping {RELAYED} 257", RELAYED, 257)
    check_goes_out(stage, game, f"unconnected {RELAYED} 64", RELAYED, 64)


def check_oddities(stage, game):
    checks = stage.checks
    # A broken request is not answered, neither by the library nor by the system.
    checks.equal(reply_to(game, f"ping {RELAYED} 64 broken"), None, "a broken ping has no answer")
    checks.equal(stage.went_out(), [(RELAYED, 64)], "a broken ping is sent unchanged")
    checks.equal(game.asked(f"watch {RELAYED} 64", "select"), "select: 0", "select sees no reply")
    checks.that(game.line_with("reply: 84 bytes"), "but there is one")
    wanted = f"burst: {IN_FLIGHT} sent, {IN_FLIGHT} answered in order"
    checks.equal(game.asked(f"burst {RELAYED} {IN_FLIGHT}", "burst"), wanted, "many at once")
    checks.equal(game.asked("close", "closed"), "closed", "the sockets close")
    check_held(stage, game, RELAYED, 22)


def check_log(stage):
    log = stage.bench.log()
    for words in (
        "[RAW]CheckinPingRequest, lag value=22, socket=",
        "[RAW]CheckinPingRequest, lag value=20, socket=",
        "[RAW]CheckinPingRequest, lag value=50, socket=",
        "[RAW]CheckinConnectionPingRequest: buffer_len=64, socket=",
        "[RAW]CheckoutPingResponse: buffer_len=84, socket=",
        "[RAW] CheckoutPingResponse:not ready, req_time=",
        "[RAW] FreePingRequestCache: cursize=512",
        "RemoveRawSocket:  socket=",
    ):
        stage.checks.that(words in log, f"the log says {words!r}")


def play(stage, options):
    """Returns what the sample game measured: the times of its beats and of its pings."""
    result = stage.runner.launch(
        stage.sample, "vyr_game.exe",
        ["play", f"{RELAYED}:{GAME_PORT}", "--ping", "--json", "--seconds", "2.5"], options,
    )  # fmt: skip
    if not stage.checks.that(result.code == 0 and result.output, "the sample game plays", result.errors):
        return None, None
    summary = json.loads(result.output)
    beats, pings = summary["servers"][0], summary["icmp"][0]
    stage.checks.equal((beats["lost"], pings["received"]), (0, pings["sent"]), "all is answered")
    return beats["ping_ms"], pings["ping_ms"]


def check_sample_game(stage):
    """Its beats take the same time with and without the library, because the bed has no distances; its
    pings do not."""
    command = [stage.native_game, "serve", f"{RELAYED}:{GAME_PORT}", "--delay-ms", str(BEAT_MS)]
    server = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
    stage.bench.running.callback(server.wait, support.LONGEST_RUN_S)
    stage.bench.running.callback(server.terminate)
    server.stdout.readline()
    for way, options, pings_ms in (("without", ["--bare"], (0, 15)), ("with", [], (16, 222))):
        beats, pings = play(stage, options)
        if beats is None:
            continue
        said = f"{way} the library: beats {beats['p50']:.1f} ms, pings {pings['p50']:.1f} ms"
        print(said)
        stage.checks.that(BEAT_MS - 1 <= beats["p50"] <= BEAT_MS + LATE_MS, said)
        stage.checks.that(pings_ms[0] <= pings["min"] <= pings_ms[1], said)
    stage.checks.that(stage.bench.node.named("flow_opened"), "its beats went through the node",
                      str(stage.bench.node.events))  # fmt: skip


def main():
    native_game = ("--game", {"type": support.pathlib.Path, "required": True})
    node = ("--node", {"type": support.pathlib.Path, "required": True})
    stage = Stage(support.parse_arguments(node, native_game))
    with stage.bench.running:
        game = stage.start(stage.folder / "Game.exe")
        check_answers(stage, game)
        check_oddities(stage, game)
        stage.checks.equal(game.end(), 0, "the game's exit code")
        check_log(stage)
        nobody = stage.runner.stage(stage.runner.probes / "ping_game.exe", "Nobody.exe") / "Nobody.exe"
        other = stage.start(nobody)
        check_goes_out(stage, other, f"ping {RELAYED} 64", RELAYED, 64)
        check_sample_game(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
