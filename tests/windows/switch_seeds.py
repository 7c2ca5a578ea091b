"""The sample game's link goes bad, and its flow moves to another node while it plays on: every
time, with every seed of what the bad link does. The game keeps its port; nothing is lost, doubled
or put out of order but by the link itself.

VYR_SWITCH_RUNS: how many runs in a row, each with a seed of its own; 1 by default."""

import os
import sys

import support

sys.path.insert(0, str(support.ROOT / "scripts"))
import demo_bed  # noqa: E402
import switch_run  # noqa: E402

RUNS = int(os.environ.get("VYR_SWITCH_RUNS", "1"))
FIRST_SEED = 2  # the demo has the first


def main():
    arguments = support.parse_arguments(("--node", {"type": support.pathlib.Path, "required": True}))
    if support.DRIVE_C is None:
        support.skip("this runs in the test bed only")
    server_program = arguments.node.parent / "vyr_game"
    for program in (arguments.node, server_program):
        if not program.exists():
            support.skip(f"no {program}; the posix preset builds it")
    checks, runner = support.Checks(), support.Runner(arguments)
    game = runner.stage(runner.bin / "vyr_game.exe", "vyr_game.exe") / "vyr_game.exe"
    logs, tables = runner.folder / "logs", runner.folder / "games.toml"
    logs.mkdir()
    tables.write_text(
        switch_run.game([support.windows_path(game)], support.windows_path(logs) + "\\")
        + switch_run.ROUTES
    )
    server = demo_bed.GameServer(server_program, switch_run.SERVER)
    nodes = switch_run.start_nodes(arguments.node)
    command = demo_bed.wine(runner.bin / "vyr_run.exe", "--", support.windows_path(game))
    run = switch_run.Run(nodes, command, logs)
    with demo_bed.Client(runner.bin, tables):
        for seed in range(FIRST_SEED, FIRST_SEED + RUNS):
            lost_before = demo_bed.machine_lost()
            try:
                facts = run.play(seed)
            except demo_bed.Failed as failure:
                checks.that(False, f"seed {seed}", failure)
                continue
            checks.equal(facts.troubles(demo_bed.machine_lost() - lost_before), [], f"seed {seed}")
            print(f"seed {seed}: {facts.line()}")
    moved = [player["address_changes"] for player in server.end()["players"]]
    checks.equal(moved, [1] * RUNS, "the game server sees each game move once")
    checks.end()


if __name__ == "__main__":
    main()
