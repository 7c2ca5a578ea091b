"""What the Windows programs serve over HTTP while a real game runs: the client's metrics agree with its reports
and with the node, the page's data arrives, and readers that never read cost no report."""

import contextlib
import http.client
import json
import socket
import subprocess
import sys
import threading

import relay_bench
import support
from conversation import Conversation, wait_until

sys.path.insert(0, str(support.ROOT / "tests" / "monitoring"))
import served  # noqa: E402

PORT, METRICS = 7000, "127.0.0.1:7191"
RATE, SECONDS, SIZE = 20, 7, 200
SILENT_READERS = 8
TABLES = relay_bench.GAMES.replace("['TCP']", "['TCP', 'UDP']")
NODE = {"node_id": "1", "node": f"{relay_bench.NODE}:{relay_bench.NODE_PORT}"}


class Reader:
    """Reads the page's data as it comes."""

    def __init__(self, at):
        self.documents = []
        self.at = at
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        with contextlib.closing(http.client.HTTPConnection(self.at.address, self.at.port)) as connection:
            connection.request("GET", "/events")
            for line in connection.getresponse():
                if line.startswith(b"data: "):
                    self.documents.append(json.loads(line[6:]))


def open_silent(at):
    reader = socket.create_connection((at.address, at.port))
    reader.sendall(f"GET /events HTTP/1.1\r\nHost: {at.at}\r\n\r\n".encode())
    return reader


def play(runner, game):
    done = runner.wine(
        [runner.launcher, support.windows_path(game), "play", f"{relay_bench.SERVER}:{PORT}",
         "--lobby", f"{relay_bench.SERVER}:{PORT}", "--rate", RATE, "--seconds", SECONDS, "--size", SIZE, "--json"],
        game.parent)  # fmt: skip
    return done.returncode


def reports_of(watcher):
    lines = []
    while not watcher.lines.empty():
        lines.append(json.loads(watcher.lines.get()))
    return lines


def check_metrics(checks, metrics, reports):
    metrics.check(checks)
    for kind in {report["event"] for report in reports}:
        checks.equal(metrics.value("vyr_reports_total", kind=kind),
                     sum(report["event"] == kind for report in reports), f"reports of {kind}")
    checks.equal(metrics.sum("vyr_reports_total"), len(reports), "no report is left out")
    last = [report for report in reports if report["event"] == "communication" and report["ended"]]
    checks.equal(sorted(report["socket_type"] for report in last), [1, 2], "a stream and a flow have ended")
    for report in last:
        labels = {"game_id": "10001", "protocol": "tcp" if report["socket_type"] == 1 else "udp", **NODE}
        for name, field in (("sent", "sent"), ("received", "recv")):
            checks.equal(metrics.value(f"vyr_{name}_bytes_total", **labels), report[f"total_{field}_bytes"],
                         f"bytes {name}")
    checks.equal(metrics.sum("vyr_flows"), 0, "nothing is open")
    checks.equal(metrics.sum("vyr_processes_total"), 1, "a process was served")


def check_node(checks, client, node):
    node.check(checks)
    for protocol in ("tcp", "udp"):
        for direction, name in (("to_server", "sent"), ("to_client", "received")):
            checks.equal(node.value("vyr_node_bytes_total", protocol=protocol, direction=direction),
                         client.sum(f"vyr_{name}_bytes_total", protocol=protocol), f"{protocol} {direction}")
    probes = node.value("vyr_node_probes_total")
    checks.that(probes and probes >= client.sum("vyr_probes_answered_total", section="frontend") > 0, "probes", probes)
    checks.equal(node.sum("vyr_node_misbehaved_total"), 0, "the node was a good one")


def check_windows_node(checks, runner):
    """The same program for Windows."""
    node = Conversation([runner.bin / "vyr_node.exe", "--listen", "127.0.0.1:0", "--metrics", "127.0.0.1:0",
                         "--until-eof"], runner.folder)  # fmt: skip
    listening = node.line_with("listening")
    if not checks.that(listening, "vyr_node.exe listens", node.process.poll()):
        return
    at = served.Served(json.loads(listening)["metrics"])
    at.metrics().check(checks)
    checks.equal(at.health()[0], 200, "vyr_node.exe is well")
    checks.equal(at.status("/metrics", Host="evil.example"), 403, "and answers to its address only")
    checks.equal(node.end(), 0, "and ends")


def run(checks, runner, game, node):
    watcher = Conversation([runner.bin / "vyr_client.exe", "watch", "--json", "--serve", "127.0.0.1:0", "--until-eof"],
                           runner.folder)  # fmt: skip
    url = json.loads(watcher.line_with("serving"))["url"]
    at = served.Served(url.removeprefix("http://").removesuffix("/"))
    checks.that(wait_until(lambda: at.health()[0] == 200), "the client is well", at.health())
    checks.equal(at.status("/metrics", Host="evil.example"), 403, "it answers to its address only")
    silent = [open_silent(at) for _ in range(SILENT_READERS)]
    reader = Reader(at)
    checks.equal(play(runner, game), 0, "the game plays")
    checks.that(wait_until(lambda: at.metrics().sum("vyr_flows") == 0), "all flows have ended", at.metrics().text)
    checks.that(is_idle(node), "the node has seen the stream's end")
    checks.that(wait_until(lambda: reader.documents and len(reader.documents[-1]["flows"]) == 2 and
                           all(flow["ended"] for flow in reader.documents[-1]["flows"])),
                "the page has seen them as well", reader.documents[-1:])
    checks.that(len(reader.documents) > 2, "and what was before", len(reader.documents))
    client, reports = at.metrics(), reports_of(watcher)
    check_metrics(checks, client, reports)
    check_node(checks, client, served.Served(METRICS).metrics())
    for one in silent:
        one.close()
    checks.equal(watcher.end(), 0, "the client ends")


def is_idle(node):
    """A game that ends right after closing its sockets leaves flows open."""
    return wait_until(lambda: not node.command(command="connections")["connections"])


def main():
    arguments = relay_bench.parse_arguments()
    checks, runner = support.Checks(), support.Runner(arguments)
    game = runner.stage(runner.bin / "vyr_game.exe", "Game.exe") / "Game.exe"
    bench = relay_bench.Bench(arguments, runner, [game], tables=TABLES, first_node=False)
    with bench.running:
        node = relay_bench.Node(arguments.node, options=("--metrics", METRICS))
        bench.running.callback(node.end)
        server = subprocess.Popen([arguments.node.parent / "vyr_game", "serve", f"{relay_bench.SERVER}:{PORT}",
                                   "--until-eof"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        bench.running.callback(server.communicate)
        server.stdout.readline()
        run(checks, runner, game, node)
        check_windows_node(checks, runner)
    checks.end()


if __name__ == "__main__":
    main()
