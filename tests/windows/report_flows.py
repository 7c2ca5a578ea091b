"""Four games at once, each with a datagram flow to every kind of server and a stream to one of them.
The reports to the client program agree with the nodes and the native servers, byte for byte, and each
flow has exactly the reports that belong to its kind. The watcher is killed in the middle, and another
one continues from what it left."""

import collections
import concurrent.futures
import json
import re
import subprocess
import time

import support
from conversation import Conversation, wait_until

ACCELERATED, DIRECT, FAILING, SECOND = (f"198.51.100.{last}" for last in (10, 11, 12, 13))
SERVERS = (ACCELERATED, DIRECT, FAILING, SECOND)
PORT = 7000
NODES = {"one": "198.51.100.20", "refusing": "198.51.100.21", "silent": "198.51.100.22"}
NODE_PORT = 9000
RATE, SECONDS, SIZE = 20, 7, 200
KILL_AFTER_S = 3
REFUSED, TIMED_OUT = 9, 202

GAMES = """
[[game]]
game_id = 10001
uin = '20001'
game_paths = ['{game}']
net_mode = ['TCP', 'UDP']
log_level = 0
log_path = '{logs}'
acc_mode = 1
"""
NODE = """
[[node]]
proxy_name = '{name}'
proxy_addr = '{address}'
proxy_port = 9000
proxy_idc = {idc}
section1_delay = 10
surport_isps = 0xffffffff
"""
ROUTE = """
[[idc]]
game_idc = {idc}
addresses = ['{address}']

[[route]]
game_idc = {idc}
direct_delay = 60
ref_default = {{ node = '{node}', decision = '{decision}', section2_delay = 12, last_node = '{node}' }}
top_refs = [{top_refs}]
"""
REF = "{{ node = '{}', decision = 'DECISION_ACCE', section2_delay = 12, last_node = '{}' }}"


def tables(game, logs):
    text = GAMES.format(game=game, logs=logs)
    for idc, (name, address) in enumerate(NODES.items(), 1):
        text += NODE.format(name=name, address=address, idc=idc)
    for idc, address, node, decision, others in (
        (1001, ACCELERATED, "one", "DECISION_ACCE", ()),
        (1002, DIRECT, "one", "DECISION_DIRECT", ()),
        (1003, FAILING, "silent", "DECISION_ACCE", ()),
        (1004, SECOND, "refusing", "DECISION_ACCE", ("refusing", "one")),
    ):
        refs = ", ".join(REF.format(other, other) for other in others)
        text += ROUTE.format(idc=idc, address=address, node=node, decision=decision, top_refs=refs)
    return text


class Native:
    """A native program that writes JSON lines and runs until the end of its input."""

    def __init__(self, *command):
        self.process = subprocess.Popen(
            list(map(str, command)), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
        )
        self.events = [json.loads(self.process.stdout.readline())]
        assert self.events[0]["event"] == "listening", self.events

    def end(self):
        rest, _ = self.process.communicate(timeout=support.LONGEST_RUN_S)
        self.events += map(json.loads, rest.splitlines())

    def named(self, event):
        return [line for line in self.events if line["event"] == event]


class Watcher:
    def __init__(self, runner, number):
        self.path = runner.folder / f"watch{number}.jsonl"
        self.file = self.path.open("wb")
        command = [support.WINE, runner.bin / "vyr_client.exe", "watch", "--json", "--follow", "--until-eof"]
        self.process = subprocess.Popen(
            list(map(str, command)), stdin=subprocess.PIPE, stdout=self.file, stderr=self.file
        )

    def reports(self):
        lines = self.path.read_bytes().decode("utf-8").splitlines()
        return [event for event in map(json.loads, lines) if event["event"] != "failure"]

    def end(self):
        self.process.stdin.close()
        self.process.wait(support.LONGEST_RUN_S)


class Stage(support.Stage):
    def __init__(self, arguments):
        super().__init__(arguments, arguments.node, arguments.game)
        self.game = self.runner.stage(self.runner.bin / "vyr_game.exe", "Game.exe") / "Game.exe"
        self.logs = self.runner.folder / "logs"
        self.logs.mkdir()
        behaviours = {"refusing": ("--result", REFUSED), "silent": ("--on-request", "silent")}
        self.nodes = {
            name: Native(arguments.node, "--until-eof", "--listen", f"{address}:{NODE_PORT}",
                         *behaviours.get(name, ()))
            for name, address in NODES.items()
        }  # fmt: skip
        self.servers = {
            address: Native(arguments.game, "serve", f"{address}:{PORT}", "--until-eof")
            for address in SERVERS
        }
        self.plays = []
        self.reports = []

    def run(self):
        path = self.runner.folder / "games.toml"
        path.write_text(tables(support.windows_path(self.game), support.windows_path(self.logs) + "\\"))
        client = Conversation(
            [self.runner.bin / "vyr_client.exe", "serve", "--until-eof", support.windows_path(path)],
            self.runner.folder,
        )
        try:
            self.checks.that(client.line_with("ready"), "the client becomes ready")
            first = Watcher(self.runner, 1)
            with concurrent.futures.ThreadPoolExecutor(len(SERVERS)) as pool:
                plays = pool.map(self.play, SERVERS)
                wait_until(lambda: any(r["event"] == "communication" for r in first.reports()))
                time.sleep(KILL_AFTER_S)
                first.process.kill()
                first.process.wait()
                second = Watcher(self.runner, 2)
                self.plays = list(plays)
            second.end()
            self.reports = first.reports() + second.reports()
        finally:
            client.end()
            for program in (*self.nodes.values(), *self.servers.values()):
                program.end()
        self.once_each()

    def play(self, lobby):
        servers = [f"{address}:{PORT}" for address in SERVERS]
        done = self.runner.wine(
            [self.runner.launcher, support.windows_path(self.game), "play", *servers,
             "--lobby", f"{lobby}:{PORT}", "--rate", RATE, "--seconds", SECONDS, "--size", SIZE,
             "--json"], self.game.parent)  # fmt: skip
        self.checks.equal(done.returncode, 0, f"the game with the lobby at {lobby} plays")
        return json.loads(done.stdout.decode().splitlines()[-1])

    def once_each(self):
        """The second watcher shows reports again that the first had shown but not freed."""
        seen = {}
        for report in self.reports:
            known = {key: value for key, value in report.items() if key != "time"}
            seen[json.dumps(known, sort_keys=True)] = report
        self.reports = list(seen.values())

    def of(self, event):
        return [report for report in self.reports if report["event"] == event]

    def log(self):
        return b"".join(file.read_bytes() for file in self.logs.glob("*.log")).decode("gbk", "replace")


def check_games(stage):
    """The games have lost nothing; otherwise the figures cannot be compared."""
    checks = stage.checks
    for play, lobby in zip(stage.plays, SERVERS):
        for server in play["servers"]:
            counts = [server[key] for key in ("lost", "source_mismatches", "damaged", "send_errors")]
            checks.equal(counts, [0, 0, 0, 0], f"beats to {server['server']} with {lobby}")
        words = (play["lobby"]["answered"], play["lobby"]["wrong"], play["lobby"]["left_well"])
        checks.equal(words, (play["lobby"]["said"], 0, True), f"the lobby at {lobby}")


def guids_by_way(stage):
    """The reports about each flow, by its guid."""
    ways = collections.defaultdict(list)
    for report in stage.reports:
        if report["event"] in ("loaded", "log_path"):
            continue
        name, guid = report["event"], report.get("guid", report.get("guid_str"))
        if name == "communication":
            name = "last" if report["ended"] else "live"
        ways[guid].append((name, report))
    return ways


def names(way):
    return sorted(name for name, _ in way if name != "live")


def check_ways(stage, ways):
    """Each kind of server has four datagram flows and one stream."""
    checks = stage.checks
    wanted = {
        ACCELERATED: ["decision", "last", "real_negotiation"],
        DIRECT: ["decision"],
        FAILING: ["negotiation_result"],
        SECOND: ["decision", "last", "negotiation_result", "real_negotiation"],
    }
    found = collections.defaultdict(list)
    for guid, way in ways.items():
        servers = {report["game_ip"] for _, report in way}
        checks.equal(len(servers), 1, f"{guid} is about one server")
        server = servers.pop()
        found[server].append(guid)
        checks.equal(names(way), wanted[server], f"the reports of {guid} to {server}")
        lives = [report["life"] for name, report in way if name in ("live", "last")]
        checks.equal(lives, sorted(lives), f"the reports of {guid} are in order")
        checks.equal(bool(lives), "last" in wanted[server], f"{guid} is reported live")
        pauses = [b - a for a, b in zip(lives, lives[1:-1])]
        checks.that(all(pause > 1000 for pause in pauses), f"live reports of {guid}: {pauses}")
    flows = len(SERVERS) + 1  # one of each game, and the lobby of one of them
    checks.equal({s: len(found[s]) for s in SERVERS}, {s: flows for s in SERVERS}, "flows to each")


def check_failures(stage):
    checks = stage.checks
    for report in stage.of("negotiation_result"):
        server, what = report["game_ip"], f"the failure of {report['guid']}"
        node, result = ("silent", TIMED_OUT) if server == FAILING else ("refusing", REFUSED)
        shown = [report[key] for key in ("nego_result", "proxy_ip", "proxy_port", "nego_count", "game_port")]
        checks.equal(shown, [result, NODES[node], NODE_PORT, 1, PORT], what)
        # The whole pass of the worker in which it begins counts towards the five seconds.
        least, most = (4900, 7000) if result == TIMED_OUT else (1, 2000)
        checks.that(least <= report["elapsed_ms"] < most, f"{what} took {report['elapsed_ms']} ms")
    for report in stage.of("decision"):
        reason = 1 if report["game_ip"] == DIRECT else 0
        checks.equal(report["acc_reason"], reason, f"the reason of {report['guid']}")


def check_figures(stage, ways):
    checks = stage.checks
    node = stage.nodes["one"]
    last = {guid: report for guid, way in ways.items() for name, report in way if name == "last"}
    keys = ("total_sent_packets", "total_sent_bytes", "total_recv_packets", "total_recv_bytes")
    flows = node.named("flow_closed")
    datagrams = {e["guid"]: [e[key] for key in ("datagrams_to_server", "bytes_to_server", "datagrams_to_client",
                                                "bytes_to_client")] for e in flows}  # fmt: skip
    guids = {e["connection"]: e["guid"] for e in node.named("request") if "connection" in e}
    streams = {guids[e["connection"]]: [e["bytes_to_server"], e["bytes_to_client"]]
               for e in node.named("closed") if e["connection"] in guids}  # fmt: skip
    told = {g: [r[key] for key in keys] for g, r in last.items() if r["socket_type"] == 2}
    checks.equal(told, datagrams, "datagrams and their bytes, as the node and the client have them")
    told = {g: [r[keys[1]], r[keys[3]]] for g, r in last.items() if r["socket_type"] == 1}
    checks.equal(told, streams, "bytes of streams, as the node and the client have them")
    checks.equal((len(datagrams), len(streams)), (8, 2), "flows through the node")
    probes = {g: r["frontend_all"]["send_count"] for g, r in last.items() if r["socket_type"] == 2}
    checks.equal(probes, {e["guid"]: e["probes"] for e in flows}, "probes")
    answers = {g: r["frontend_all"]["recv_count"] for g, r in last.items() if r["socket_type"] == 2}
    under_way = [e["probe_answers"] - answers.get(e["guid"], 0) for e in flows]
    checks.that(set(under_way) <= {0, 1}, "answered probes", str(under_way))
    for report in last.values():
        checks.equal([report[key] for key in ("total_sent_errors", "total_recv_errors")], [0, 0], "errors")


def check_servers(stage, ways):
    """The servers do not know nodes or guids, but each flow has an address there."""
    checks = stage.checks
    places = {e["from"]: e["guid"] for e in stage.nodes["one"].named("flow_opened")}
    last = {guid: report for guid, way in ways.items() for name, report in way if name == "last"}
    for place, address in enumerate(SERVERS):
        summary = stage.servers[address].named("summary")[0]
        sent = sorted(play["servers"][place]["sent"] for play in stage.plays)
        heard = sorted(player["received"] for player in summary["players"])
        checks.equal(heard, sent, f"beats that {address} has heard, by game")
        through = 0
        for player in summary["players"]:
            guid = places.get(player["address"])
            if guid is None:
                continue
            through += 1
            report, beats = last[guid], player["received"]
            told = (report["total_sent_packets"], report["total_sent_bytes"], report["game_ip"])
            checks.equal(told, (beats, beats * SIZE, address), f"{guid} at its server")
            told = (report["total_recv_packets"], report["total_recv_bytes"])
            checks.equal(told, (player["answered"], player["answered"] * SIZE), f"answers of {guid}")
        checks.equal(through, 4 if address in (ACCELERATED, SECOND) else 0, f"flows to {address} by the node")


def check_processes(stage):
    checks = stage.checks
    logs = {support.windows_path(file).lower() for file in stage.logs.glob("*.log")}
    checks.equal(len(logs), len(SERVERS), "log files")
    told = {report["log_path"].lower() for report in stage.of("log_path")}
    checks.equal(told, logs, "the paths of the logs")
    programs = [report["process_name"].lower() for report in stage.of("loaded")]
    # The list has equal reports once: the processes have the same name and the same game.
    checks.equal(sorted(set(programs)), ["game.exe"], "the programs")
    log = stage.log()
    for text, event in (
        (r"\[Tracker\] ReportAcceDecisionInfo success,  idx=\d+, array_size=108, pid=\d+, sock=\d+", "decision"),
        (r"\[Tracker\] ReportNegRetValue success\.", "negotiation_result"),
        (r"\[SocketQosHelper\] ReportRealNego success, stamp=\d+,game_id=10001, ", "real_negotiation"),
        (r"\[Tracker\] ReportCommunicationStatistic \w+ data success\. series_code=", "communication"),
        (r"\[Tracker\] ReportLogPath success, game_id=10001,  log_path=", "log_path"),
    ):
        checks.equal(len(re.findall(text, log)), len(stage.of(event)), f"lines of the logs about {event}")
    checks.equal(log.count("[Tracker] ReportLspLoadedInfo success, "), len(SERVERS), "lines about the start")
    checks.equal(re.findall(r"Report\w+ failed.*", log), [], "lost reports")


def main():
    path = {"type": support.pathlib.Path, "required": True}
    stage = Stage(support.parse_arguments(("--node", path), ("--game", path)))
    stage.run()
    check_games(stage)
    ways = guids_by_way(stage)
    check_ways(stage, ways)
    check_failures(stage)
    check_figures(stage, ways)
    check_servers(stage, ways)
    check_processes(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
