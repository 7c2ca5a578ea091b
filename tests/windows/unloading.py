"""The host itself, with a layer that does nothing. At each end of Winsock the layer's cleanup is called
and the layer is unloaded; at the next start it is loaded again. Calls reach the layer because the base
provider registers sockets under the layer's catalogue entry: if the layer does not pass the entry down,
calls bypass it."""

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
    # Each round has one for streams and one for datagrams.
    checks.equal([start["result"] for start in starts], [0] * 2 * ROUNDS, f"{what}: starts")
    checks.equal({start["replaced_entries"] for start in starts}, {REPLACED}, f"{what}: tables")
    names = [cleanup["cleanup"] for cleanup in cleanups]
    checks.equal(names, [start["start"] for start in starts], f"{what}: each start has its cleanup")
    # Two entries use the module; it is unloaded with the second.
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
        # The sockets of every second round are closed after Winsock has ended and forgotten them.
        checks.equal(closes, ROUNDS, f"{what}: closes that the layer sees")
    result = run(arguments, runner, server, "forgetful_layer.dll", [])
    check(checks, "forgetful", result, unloaded=True)
    seen = set(result.calls("library"))
    checks.equal(seen, {"WSPSocket", "WSPCleanup"}, "forgetful: calls that reach the layer")
    checks.end()


if __name__ == "__main__":
    main()
