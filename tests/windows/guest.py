"""A relayed game finds its process as it left it after each call: the numbers that it draws, its
error number and locale, its floating-point modes, and a new thread's. It says the same with and
without the library under it."""

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
        checks.that("strtok goes on with: second" in relayed.output, "nor half a string's place")
        checks.equal(relayed.code, alone.code, "same exit code")
        games = bench.node.games()
        checks.that(len(games) == 4, "streams and datagrams went through the node", str(games))
        # On the way to the node a socket that was not bound is, to a port that is drawn.
        checks.that("BindRandomPort bind, port=" in bench.log(), "a port was drawn", bench.log())
    checks.end()


if __name__ == "__main__":
    main()
