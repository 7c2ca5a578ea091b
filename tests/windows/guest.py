"""No call of a relayed game changes the state of its process: its random numbers, error number and
locale, its floating-point modes and those of a new thread. Its output is the same with and without
the library."""

import difflib

import relay_bench
import support


def main():
    arguments = relay_bench.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    folder = runner.stage(arguments.probes / "guest.exe", "Game.exe")
    tables = relay_bench.GAMES.replace("['TCP']", "['TCP', 'UDP']")
    bench = relay_bench.Bench(arguments, runner, [folder / "Game.exe"], 0, tables)
    server = support.EchoServer(relay_bench.SERVER)
    words = [server.address, server.port]
    with bench.running:
        alone = runner.launch(folder, "Game.exe", words, ["--bare"])
        relayed = runner.launch(folder, "Game.exe", words)
        print(relayed.output)
        difference = difflib.unified_diff(
            alone.output.splitlines(), relayed.output.splitlines(), "alone", "relayed", lineterm=""
        )
        checks.that(relayed.output == alone.output, "relayed: same output", "\n".join(difference))
        checks.that("all kept" in alone.output, "it looks", alone.output)
        checks.that(" changed" not in relayed.output, "nothing is changed", relayed.output)
        checks.that("strtok goes on with: second" in relayed.output, "strtok's position in a string is kept")
        checks.equal(relayed.code, alone.code, "same exit code")
        games = bench.node.games()
        checks.that(len(games) == 4, "streams and datagrams went through the node", str(games))
        # For the connection to the node, an unbound socket is bound to a random port.
        checks.that("BindRandomPort bind, port=" in bench.log(), "a random port was bound", bench.log())
    checks.end()


if __name__ == "__main__":
    main()
