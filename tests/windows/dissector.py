"""tools/vyr.lua over the traffic of a real game: a flow of datagrams that moves to another node, and streams.
tshark finds nothing malformed, and every field and count is as the nodes logged it."""

import collections
import sys

import support

sys.path[:0] = [str(support.ROOT / "scripts"), str(support.ROOT / "tests" / "dissector")]
import capture  # noqa: E402
import demo_bed  # noqa: E402
import switch_run  # noqa: E402

SEED = 5
REQUEST = ("ip.dst", "vyr.game_ip", "vyr.game_port", "vyr.request.guid", "vyr.request.retry",
           "vyr.request.moves_flow", "vyr.request.game_id", "vyr.request.game_idc", "vyr.request.uin")
TRUE = ("1", "True")


def play(arguments, runner, path):
    """Returns the nodes, with the events of a game whose flow has moved from the first to the second."""
    game = runner.stage(runner.bin / "vyr_game.exe", "vyr_game.exe") / "vyr_game.exe"
    logs, tables = runner.folder / "logs", runner.folder / "games.toml"
    logs.mkdir()
    tables.write_text(
        switch_run.game([support.windows_path(game)], support.windows_path(logs) + "\\") + switch_run.ROUTES
    )
    server = demo_bed.GameServer(arguments.node.parent / "vyr_game", switch_run.SERVER)
    nodes = switch_run.start_nodes(arguments.node)
    command = demo_bed.wine(runner.launcher, "--", support.windows_path(game))
    with capture.Recorder(path), demo_bed.Client(runner.bin, tables):
        switch_run.Run(nodes, command, logs).play(SEED)
    flows = {node.name: list(node.flows().values()) for node in nodes}
    for process in (*nodes, server):
        process.end()
    return nodes, flows


def check_requests(checks, path, nodes):
    found = capture.fields(path, "vyr.request.guid", *REQUEST)
    wanted = [
        (address, *event["game"].split(":"), event["guid"].lower(), str(event["retry"]))
        for address, node in zip((switch_run.NODE_A, switch_run.NODE_B), nodes)
        for event in node.named("request")
    ]
    checks.equal(sorted(row[:5] for row in found), sorted(wanted), "the requests")
    moves = [row[0] for row in found if row[5] in TRUE]
    checks.equal(moves, [switch_run.NODE_B], "one request moves the flow")
    checks.equal({row[6:] for row in found}, {("10001", "1001", "20001")}, "game, data centre and user")
    tokens = capture.fields(path, "vyr.response.result == 0", "ip.src", "vyr.last_node.id")
    checks.equal(len(tokens), len(wanted), "each request is accepted")
    checks.equal({row[1] for row in tokens}, {str(switch_run.LAST_NODE)}, "the last node of each answer")


def counts_of(path):
    """By the node's address and the flow's token: datagrams of each kind and direction."""
    counted = collections.defaultdict(collections.Counter)
    # An answer to the last probe may come after the game's end: what tells so quotes it.
    rows = capture.fields(path, "vyr.udp.seq and not icmp", "vyr.to_node", "ip.src", "ip.dst", "vyr.token", "vyr.udp.flags",
                          "vyr.probe.seq")  # fmt: skip
    for to_node, source, destination, token, flags, probe in rows:
        up = to_node in TRUE
        kind = "probe" if probe else "end" if int(flags, 16) & 4 else "data"
        counted[destination if up else source, int(token, 16)][kind, "up" if up else "down"] += 1
    return counted


def check_flows(checks, path, flows):
    counted = counts_of(path)
    for name, address in (("node A", switch_run.NODE_A), ("node B", switch_run.NODE_B)):
        checks.that(flows[name], f"{name} has carried a flow")
        for flow in flows[name]:
            seen = counted.pop((address, flow["token"]), {})
            print(f"{name}: {dict(seen)}")
            ups = seen.get(("data", "up"), 0) + seen.get(("end", "up"), 0)
            ended = 1 if seen.get(("end", "up"), 0) and (not flow["open"]) else 0
            # What a flow's end finds on its way is never sent.
            checks.equal(ups, flow["datagrams_to_server"] + flow["dropped_up"] + flow["held_up"] + ended,
                         f"{name}: data up")
            checks.equal(seen.get(("data", "down"), 0), flow["datagrams_to_client"] - flow["dropped_down"] - flow["held_down"],
                         f"{name}: data down")
            checks.equal(seen.get(("probe", "up"), 0), flow["probes"] + flow["dropped_probes"] + flow["held_probes"],
                         f"{name}: probes")
            answers = flow["probe_answers"] - flow["dropped_probe_answers"] - flow["held_probe_answers"]
            checks.equal(seen.get(("probe", "down"), 0), answers, f"{name}: answers")
            checks.that(seen.get(("probe", "up"), 0) > 0, f"{name}: it was probed")
    checks.equal(dict(counted), {}, "no datagram of another flow")


def main():
    arguments = support.parse_arguments(("--node", {"type": support.pathlib.Path, "required": True}))
    support.needs_bed(arguments.node, arguments.node.parent / "vyr_game")
    if capture.tshark() is None:
        support.skip("no tshark here")
    checks, runner = support.Checks(), support.Runner(arguments)
    path = runner.folder / "game.pcap"
    nodes, flows = play(arguments, runner, path)
    # What node and game server send each other may look like some other protocol to tshark.
    checks.equal(capture.trouble(path, "vyr"), [], "nothing is malformed")
    check_requests(checks, path, nodes)
    check_flows(checks, path, flows)
    checks.end()


if __name__ == "__main__":
    main()
