"""Datagrams of real programs through a node: the sample game at three rates, to several servers from
one socket and from connected ones, while a media program sends and plays a film. Datagrams are lost
only in full buffers of the machine, which it counts. None is duplicated or reordered, each answer has
its server's address, and each game keeps its port.

VYR_FLOW_SECONDS: how long the games play; 10 by default."""

import json
import os
import subprocess
import sys

import real_programs
import support
import udp_media
from conversation import wait_until

sys.path.insert(0, str(support.ROOT / "scripts"))
import demo_bed  # noqa: E402
import switch_run  # noqa: E402

SECONDS = int(os.environ.get("VYR_FLOW_SECONDS", "10"))
RATES = (30, 60, 128)
RELAYED = ("198.51.100.10:7000", "198.51.100.11:7000", "198.51.100.10:7001")
DIRECT = ("198.51.100.12:7000", "198.51.100.13:7000")  # in no table
LEAST = 0.5  # of the beats must be sent; if not, the machine is too busy for this test
LINGER_MS = 20000  # for answers that are late on a busy machine


class Play:
    """A game process, and the summary that it prints at its end."""

    def __init__(self, stage, rate, servers, connected):
        self.name = f"{rate} a second{', connected' if connected else ''}"
        self.rate, self.sent, self.lost, self.starved = rate, 0, 0, False
        words = ["play", *servers, "--rate", rate, "--seconds", SECONDS, "--size", 200,
                 "--linger-ms", LINGER_MS, "--json"]
        words += ["--connected"] if connected else []
        self.process = subprocess.Popen(
            stage.command("vyr_game.exe")(*map(str, words)), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
        )  # fmt: skip

    def summary(self, checks):
        said, errors = self.process.communicate(timeout=SECONDS + support.LONGEST_RUN_S)
        checks.equal(self.process.returncode, 0, f"{self.name}: exit code\n{errors}")
        lines = said.splitlines()
        return json.loads(lines[-1]) if lines else None

    def check(self, checks):
        summary = self.summary(checks)
        if not checks.that(summary, f"{self.name}: it prints its summary"):
            return
        for name in ("strangers", "receive_errors"):
            checks.equal(summary[name], 0, f"{self.name}: {name}")
        for server in summary["servers"]:
            self._check_server(checks, server)

    def _check_server(self, checks, server):
        name = f"{self.name}: {server['server']}"
        self.starved = self.starved or server["sent"] < LEAST * self.rate * SECONDS
        for count in ("send_errors", "duplicated", "reordered", "source_mismatches", "damaged"):
            checks.equal(server[count], 0, f"{name}: {count}")
        ports = (server["own_port_begin"], server["own_port_end"])
        checks.that(ports[0] != 0 and ports[0] == ports[1], f"{name}: the port stays the same", ports)
        self.sent += server["sent"]
        self.lost += server["lost"]


class Stage(support.Stage):
    def __init__(self, arguments):
        native_game = arguments.node.parent / "vyr_game"
        super().__init__(arguments, arguments.node, native_game)
        programs = real_programs.programs_folder(arguments.kind)
        sources = {"vyr_game.exe": self.runner.bin, "ffmpeg.exe": programs}
        self.paths = {name: self.runner.stage(folder / name, name) / name
                      for name, folder in sources.items()}  # fmt: skip
        self.node, self.other = switch_run.start_nodes(arguments.node)
        self.servers = [demo_bed.GameServer(native_game, server)
                        for server in (*RELAYED, *DIRECT)]  # fmt: skip
        self.logs = self.runner.folder / "logs"
        self.logs.mkdir()
        self.tables = self.runner.folder / "games.toml"
        games = [support.windows_path(path) for path in self.paths.values()]
        text = switch_run.game(games, support.windows_path(self.logs) + "\\") + switch_run.ROUTES
        # Delays on a busy machine must not look like a bad link.
        self.tables.write_text(text.replace("\nswitch_open = 1", "\nswitch_open = 0"))

    def command(self, name):
        """A function that makes a command with the library from the program's arguments."""
        launcher, program = self.runner.launcher, support.windows_path(self.paths[name])
        return lambda *words: demo_bed.wine(launcher, "--", program, *words)

    def media(self):
        media = udp_media.Media(self.command("ffmpeg.exe"), self.paths["ffmpeg.exe"].parent,
                                self.checks)  # fmt: skip
        film = media.sends(switch_run.NODE_A)
        media.receives(film, switch_run.NODE_A)


def check_node(stage, plays):
    """The node carried everything that the games sent."""
    checks, node = stage.checks, stage.node
    flows = [flow for flow in node.flows().values() if flow["game"].endswith(":7000")]
    carried = sum(flow["datagrams_to_server"] for flow in flows)
    sent, lost = (sum(getattr(play, name) for play in plays) for name in ("sent", "lost"))
    checks.that(sent - lost <= carried <= sent, "datagrams that went through the node",
                f"{carried} carried of {sent} sent, {lost} lost")  # fmt: skip
    checks.equal(sum(flow["undelivered"] + flow["strays"] for flow in flows), 0, "undelivered")
    checks.equal(stage.other.named("request"), [], "nothing moves to the other node")
    troubles = [event for event in node.events
                if event["event"] in ("bad_request", "dropped", "error")]  # fmt: skip
    checks.equal(troubles, [], "the node's troubles")


def main():
    stage = Stage(support.parse_arguments(
        ("--node", {"type": support.pathlib.Path, "required": True})))  # fmt: skip
    checks = stage.checks
    support.client_program(stage.runner.bin)  # or else the test is skipped
    with demo_bed.Client(stage.runner.bin, stage.tables):
        relayed = [Play(stage, rate, RELAYED, connected=False) for rate in RATES]
        direct = [Play(stage, rate, DIRECT, connected=True) for rate in RATES]
        # Kept: a datagram of a connected socket has no destination, so if the tables want it relayed,
        # it does not arrive.
        nowhere = Play(stage, RATES[0], RELAYED[:1], connected=True)
        stage.media()
        for play in (*relayed, *direct, nowhere):
            play.check(checks)
    if any(play.starved for play in (*relayed, *direct, nowhere)):
        support.skip("this machine is too busy: the games could not send half of their beats")
    machine, lost = demo_bed.machine_lost(), sum(play.lost for play in relayed + direct)
    checks.that(lost <= machine, "datagrams are lost only by the machine",
                "\n".join(f"{play.name}: {play.lost} of {play.sent}" for play in relayed + direct)
                + f"\nthe machine: {machine}")  # fmt: skip
    checks.equal(nowhere.lost, nowhere.sent, f"{nowhere.name} to a relayed server: all lost")
    check_node(stage, relayed)
    print(f"{sum(play.sent for play in relayed + direct)} datagrams each way, {lost} lost, {machine} by the machine")
    checks.end()


if __name__ == "__main__":
    main()
