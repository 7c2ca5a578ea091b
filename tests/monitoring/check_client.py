#!/usr/bin/env python3
"""The client's metrics against the reports that it was given.

usage: check_client.py VYR_CLIENT
"""
import sys

import served
from served import Checks, Client, sample_run

NODE_1 = {"node_id": "1", "node": "198.51.100.20:9000"}
NODE_2 = {"node_id": "2", "node": "198.51.100.21:9000"}
HOSTILE = 'a"b\\c\nd{}#é'


def last_of(run, number):
    """The last traffic report of the flow."""
    return [r for r in run if r["event"] == "communication" and r["guid_str"] == sample_run.guid(number)][-1]


def check_run(checks, program):
    run = sample_run.reports()
    program.feed(run)
    checks.that(program.has(len(run)), "all are taken in")
    metrics = program.served.metrics()
    metrics.check(checks)
    kinds = {r["event"] for r in run}
    for kind in kinds:
        checks.that(metrics.value("vyr_reports_total", kind=kind) == sum(r["event"] == kind for r in run),
                    f"all of {kind} are counted")
    checks.that(metrics.sum("vyr_reports_total") == len(run), "and no others")
    checks.that(metrics.value("vyr_last_report_timestamp_seconds") == run[-1]["time"] / 1000, "the latest report")
    for name, wanted, labels in (
        ("vyr_processes_total", 1, {"game_id": "77"}),
        ("vyr_decisions_total", 1, {"game_id": "77", "protocol": "tcp", "route": "direct", "reason": "2"}),
        ("vyr_decisions_total", 2, {"game_id": "77", "protocol": "udp", "route": "node", "reason": "11"}),
        ("vyr_agreements_total", 2, {"game_id": "77", **NODE_2}),
        ("vyr_negotiation_failures_total", 1, {"game_id": "77", "protocol": "tcp", **NODE_1, "result": "207"}),
        ("vyr_negotiation_failures_total", 1, {"game_id": "77", "protocol": "udp", **NODE_1, "result": "202"}),
        ("vyr_link_troubles_total", 1, {"game_id": "77", "node_id": "1", "outcome": "no_better"}),
        ("vyr_link_troubles_total", 1, {"game_id": "77", "node_id": "1", "outcome": "moved"}),
    ):
        checks.that(metrics.value(name, **labels) == wanted, f"{name} of {labels}", metrics.value(name, **labels))
    flow = {"game_id": "77", "protocol": "udp", **NODE_2}
    last = last_of(run, 2)
    for name, wanted in (("sent_bytes", last["total_sent_bytes"]), ("received_bytes", last["total_recv_bytes"]),
                         ("sent_packets", last["total_sent_packets"]), ("receive_errors", 0)):
        found = metrics.value(f"vyr_{name}_total", **flow)
        checks.that(found == wanted, f"{name} of the flow", (found, wanted))
    front = {**flow, "section": "frontend"}
    checks.that(metrics.value("vyr_probes_sent_total", **front) == last["frontend_fine"]["total_send"], "probes")
    checks.that(metrics.value("vyr_probes_answered_total", **front) == last["frontend_fine"]["total_recv"], "answers")
    checks.that(metrics.value("vyr_probe_delay_seconds", **front) == last["frontend_fine"]["delay_avg"] / 1000,
                "the delay is in seconds")
    checks.that(metrics.value("vyr_flows", **flow) == 1 and metrics.sum("vyr_flows") == 1,
                "the flow that has ended is not open")
    saved = metrics.value("vyr_saved_delay_seconds", node=NODE_2["node"])
    wanted = (80 - last["frontend_fine"]["delay_avg"] - 31) / 1000  # direct, and from the node on, by the tables
    checks.that(saved == wanted and metrics.sum("vyr_saved_delay_seconds") == wanted, "what the node saves",
                (saved, wanted))
    ended = {"game_id": "77", "protocol": "udp", **NODE_1, "section": "backend"}
    checks.that(metrics.value("vyr_probes_answered_total", **ended) == last_of(run, 3)["backend_fine"]["total_recv"],
                "what the one that has ended carried is counted still")


def traffic(time, life, sent, **more):
    report = sample_run.traffic(time, 50, 7050, 5, life, (30, 60, 9, 3, 10, 12))
    return {**report, "total_sent_bytes": sent, **more}


def check_growth(checks, program):
    """Counters only grow: over the 32 bits of the library's, past a report that came again, and where a flow's
    probes begin anew."""
    flow = {"game_id": "77", "protocol": "udp", "node_id": "5", "node": "198.51.100.24:9000"}
    sent = lambda: program.served.metrics().value("vyr_sent_bytes_total", **flow)  # noqa: E731
    probes = lambda: program.served.metrics().value("vyr_probes_sent_total", **flow, section="frontend")  # noqa: E731
    total = program.served.health()[1]["reports"]
    near = 2**32 - 1000
    program.feed([traffic(200000, 1000, near, direct_delay=80)])
    checks.that(program.has(total + 1) and sent() == near, "bytes before the wrap", sent())
    checks.that(program.served.metrics().value("vyr_direct_delay_seconds", **flow) == 0.08, "the direct delay")
    again = traffic(205000, 6000, 500)
    program.feed([again, again])
    checks.that(program.has(total + 3) and sent() == near + 1500, "bytes after the wrap", sent())
    checks.that(probes() == 12, "probes so far", probes())
    program.feed([{**traffic(210000, 11000, 500), "frontend_fine": {"total_send": 4, "total_recv": 4}}])
    checks.that(program.has(total + 4) and probes() == 16, "probes that begin anew", probes())
    program.feed([traffic(240000, 41000, 500), {**traffic(241000, 42000, 700), "ended": 1},
                  traffic(245000, 46000, 900)])
    checks.that(program.has(total + 7) and sent() == near + 1700, "nothing after the end", sent())


def check_labels(checks, program):
    """Whatever a node is called, it is one label, and however many there are, the answer is bounded."""
    total = program.served.health()[1]["reports"]
    program.feed([{**traffic(250000, 1000, 1), "guid_str": "h", "proxy_ip": HOSTILE}])
    checks.that(program.has(total + 1), "a hostile name is taken in")
    metrics = program.served.metrics()
    metrics.check(checks)
    found = metrics.value("vyr_sent_bytes_total", game_id="77", protocol="udp", node_id="5", node=f"{HOSTILE}:9000")
    checks.that(found == 1, "and read back as it was", metrics.labels_of("vyr_sent_bytes_total"))
    flood = [{**traffic(260000, 1000, 3), "guid_str": f"g{i}", "proxy_idc": 1000 + i} for i in range(3000)]
    program.feed(flood)
    checks.that(program.has(total + 1 + len(flood)), "a flood is taken in")
    metrics = program.served.metrics()
    metrics.check(checks)
    series = [key for key in metrics.samples if key[0] == "vyr_sent_bytes_total"]
    checks.that(len(series) <= 201, "a family is bounded", len(series))
    other = metrics.value("vyr_sent_bytes_total", game_id="other", protocol="other", node_id="other", node="other")
    kept = sum(metrics.value("vyr_sent_bytes_total", **dict(of)) for name, of in series
               if dict(of)["node_id"].startswith("1") and len(dict(of)["node_id"]) == 4)
    checks.that(other and other + kept == 3 * len(flood), "and nothing is lost from it", (other, kept))


def check_replay_is_json(checks, program_path):
    """The event that says where is none that another watch stumbles over."""
    with Json(program_path, "watch", "--json", "--from", "-", "--serve", "127.0.0.1:0", feed=True) as program:
        with Client(program_path) as second:
            second.process.stdin.write(program.first + "\n")
            second.feed(sample_run.one_flow("n"))
            checks.that(second.has(len(sample_run.one_flow("n"))), "a watch reads what another has printed")
        program.process.stdin.close()
        checks.that(program.served.status("/health") == 200, "it stays when its input has ended")


class Json(served.Program):
    def where(self):
        event = served.json.loads(self.first)
        assert event["event"] == "serving", event
        return event["url"].removeprefix("http://").removesuffix("/")


def main():
    checks = Checks()
    with Client(sys.argv[1]) as program:
        check_run(checks, program)
        check_growth(checks, program)
        check_labels(checks, program)
    check_replay_is_json(checks, sys.argv[1])
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
