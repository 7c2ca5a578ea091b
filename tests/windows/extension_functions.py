"""Programs that connect by extension function: as a relayed game, an event loop does the same work as
without the library, and every connection that it makes, with a ConnectEx that it looked up once, goes
through the node. Of these functions, only ConnectEx is the library's own."""

import relay_bench
import support
from conversation import wait_until

CONNECTIONS = 41  # those of the loop, and one that transmits a file
FUNCTIONS = ("ConnectEx", "AcceptEx", "TransmitFile", "DisconnectEx", "GetAcceptExSockaddrs")
WORK = (
    "loop: 40 connected, 40 see their server, 40 echoed, 40 disconnected, 0 failed",
    "transmitted: 1, came back whole: 1",
    "TransmitFile: 1, 1, 300008 bytes",
    "DisconnectEx: 1, 1, 0 bytes",
    "AcceptEx: 1, 1, 5 bytes",
)
COLON = "："


def modules(result):
    lines = [line for line in result.output.splitlines() if line.startswith("module of ")]
    return dict(line.removeprefix("module of ").split(": ") for line in lines)


def work(result):
    return [line for line in result.output.splitlines() if not line.startswith("module of ")]


def run(runner, folder, server, options):
    return runner.launch(folder, "Game.exe", [server.address, str(server.port)], options)


def main():
    arguments = relay_bench.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    folder = runner.stage(arguments.probes / "event_loop.exe", "Game.exe")
    server = support.EchoServer(relay_bench.SERVER)
    bench = relay_bench.Bench(arguments, runner, [folder / "Game.exe"])
    with bench.running:
        alone = run(runner, folder, server, ["--bare"])
        checks.equal(bench.node.games(), [], "alone: no request to the node")
        game = run(runner, folder, server, [])
        checks.equal(game.code, 0, "exit code")
        checks.equal(work(game), work(alone), "the program's work is the same")
        checks.that(set(WORK) <= set(work(alone)), "the work is complete", alone.output)
        asked = [f"{server.address}:{server.port}"] * CONNECTIONS
        wait_until(lambda: len(bench.node.games()) >= CONNECTIONS)
        checks.equal(bench.node.games(), asked, "the node is asked for every connection")
        found, without = modules(game), modules(alone)
        checks.equal(found.pop("ConnectEx", None), runner.library.name, "which module has ConnectEx")
        without.pop("ConnectEx", None)
        checks.equal(found, without, "which modules have the others")
        log = bench.log()
        for name in FUNCTIONS:
            said = "WSPAcceptEx" if name == "AcceptEx" else name
            checks.that(f"WSPIoctl{COLON}extension function is {said}" in log, f"{name} is recognised")
        relayed = log.count("RequestTcpRelaySession is relayed")
        checks.equal(relayed, CONNECTIONS, "connections that were redirected")
    checks.end()


if __name__ == "__main__":
    main()
