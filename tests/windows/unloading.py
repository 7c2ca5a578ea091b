"""The host itself, with a layer that does nothing: at each end of Winsock the layer is told and
leaves the process, and at the next start it comes back. Its sockets are its own because the base
provider registers them under its catalogue entry: where the entry is not passed down, calls go past
the layer."""

import restarts
import support

ROUNDS = 20
REPLACED = 3


def run(arguments, runner, server, layer, options):
    folder = runner.stage(arguments.probes / "restarts.exe", "program.exe")
    options = ["--library", support.windows_path(arguments.probes / layer), *options]
    return runner.launch(folder, "program.exe", [support.SERVER, str(server.port), str(ROUNDS)], options)


def check(checks, what, result, unloaded):
    checks.equal(result.code, 0, f"{what}: exit code\n{result.errors}")
    checks.equal(len(restarts.ROUND.findall(result.output)), ROUNDS, f"{what}: rounds\n{result.output}")
    starts, cleanups = result.starts(), result.cleanups()
    # Of each round one for streams, one for datagrams.
    checks.equal([start["result"] for start in starts], [0] * 2 * ROUNDS, f"{what}: starts")
    checks.equal({start["replaced_entries"] for start in starts}, {REPLACED}, f"{what}: tables")
    names = [cleanup["cleanup"] for cleanup in cleanups]
    checks.equal(names, [start["start"] for start in starts], f"{what}: each start has its cleanup")
    # Two entries hold the module; it goes with the second.
    gone = [cleanup["unloaded"] for cleanup in cleanups]
    checks.equal(gone, [False, unloaded] * ROUNDS, f"{what}: when the layer leaves the process")
    restarts.check_nothing_left(checks, what, result)
    restarts.check_after_the_end(checks, what, result)


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    server = restarts.TellingServer(support.SERVER)
    for options in (["--cleanup", "before"], ["--cleanup", "after"], ["--keep-loaded"]):
        what = " ".join(options)
        result = run(arguments, runner, server, "layer.dll", options)
        check(checks, what, result, unloaded="--keep-loaded" not in options)
        closes = result.calls("library").get("WSPCloseSocket", {}).get("count", 0)
        # Those of every second round are closed once Winsock has ended and forgotten them.
        checks.equal(closes, ROUNDS, f"{what}: closes that the layer sees")
    result = run(arguments, runner, server, "forgetful_layer.dll", [])
    check(checks, "forgetful", result, unloaded=True)
    seen = set(result.calls("library"))
    checks.equal(seen, {"WSPSocket", "WSPCleanup"}, "forgetful: what does not go past the layer")
    checks.end()


if __name__ == "__main__":
    main()
