"""Winsock starts a provider once for each provider GUID. With a GUID for each layered entry the
library is started for streams and for datagrams; with one GUID for all of them it is started once,
for the kind of the program's first socket, and serves every other kind with that table. Either way
the game's streams and datagrams are accelerated."""

import relay_bench
import restarts
import support

STREAMS, DATAGRAMS = 6, 17
HOOKED = support.REPLACED_ENTRIES

# the GUIDs and starts of entries | the starts that a game with both kinds of socket causes
CASES = [
    ((), [STREAMS, DATAGRAMS]),
    (("--guids", "one"), [STREAMS]),
    (("--guids", "one", "--starts", "entry"), [STREAMS, DATAGRAMS]),
    (("--guids", "each", "--starts", "entry"), [STREAMS, DATAGRAMS]),
]


def check(stage, options, protocols):
    what, checks = " ".join(options) or "by default", stage.checks
    result = stage.run(what, stage.game, "Game.exe", 1, options)
    starts = [(start["protocol"], start["result"], start["replaced_entries"]) for start in result.starts()]
    checks.equal(starts, [(protocol, 0, HOOKED) for protocol in protocols], f"{what}: starts")
    cleaned = [cleanup["cleanup"] for cleanup in result.cleanups()]
    checks.equal(cleaned, [start["start"] for start in result.starts()], f"{what}: each start has its cleanup")
    ways = [both for _, *both, _ in result.rounds]
    checks.equal(ways, [[relay_bench.NODE] * 2], f"{what}: the node carries both kinds")
    seen = result.calls("library")
    for call in ("WSPConnect", "WSPSendTo", "WSPRecvFrom", "WSPCloseSocket"):
        checks.that(call in seen, f"{what}: {call} goes through the library", str(seen))


def main():
    stage = restarts.Stage(relay_bench.parse_arguments())
    with stage.bench.running:
        for options, protocols in CASES:
            check(stage, options, protocols)
    stage.checks.end()


if __name__ == "__main__":
    main()
