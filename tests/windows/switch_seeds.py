"""The sample game's link goes bad, and its flow moves to another node while it plays on, with every
seed of the bad link's behaviour. The game keeps its port; only the link itself loses, duplicates or
reorders datagrams.

VYR_SWITCH_RUNS: the number of runs, each with its own seed; 1 by default. With more than one, runs
with links that are bad in other ways follow."""

import os
import sys

import support

sys.path.insert(0, str(support.ROOT / "scripts"))
import demo_bed  # noqa: E402
import switch_run  # noqa: E402

RUNS = int(os.environ.get("VYR_SWITCH_RUNS", "1"))
FIRST_SEED = 2  # the demo uses seed 1


# What the link does, and how many answers may still be in flight when the first one through the new
# node closes the old socket.
OTHERS = (
    ("silence", dict.fromkeys(switch_run.LINK, 100), 0),
    ("loss on the way up", {"data_up_loss": 40, "probe_up_loss": 40}, 0),
    ("loss on the way down", {"data_down_loss": 40, "probe_down_loss": 40}, 0),
    ("delay", {"data_up_delay_ms": 400, "probe_up_delay_ms": 400}, 16),
)


def play(checks, run, name, seed, link, late):
    machine_lost = demo_bed.machine_lost()
    try:
        facts = run.play(seed, link)
    except demo_bed.Failed as failure:
        checks.that(False, name, failure)
        return
    machine_lost = demo_bed.machine_lost() - machine_lost
    checks.equal(facts.troubles(machine_lost + late), [], name)
    checks.equal(facts.lost_up + facts.lost_down > 0, any("loss" in lane for lane in link),
                 f"{name}: what the link loses")  # fmt: skip
    print(f"{name}: {facts.line()}", flush=True)


def main():
    arguments = support.parse_arguments(("--node", {"type": support.pathlib.Path, "required": True}))
    server_program = arguments.node.parent / "vyr_game"
    support.needs_bed(arguments.node, server_program)
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
    command = demo_bed.wine(runner.launcher, "--", support.windows_path(game))
    run = switch_run.Run(nodes, command, logs)
    runs = [(f"seed {FIRST_SEED + i}", FIRST_SEED + i, switch_run.LINK, 0) for i in range(RUNS)]
    if RUNS > 1:
        runs += [(name, FIRST_SEED, link, late) for name, link, late in OTHERS]
    with demo_bed.Client(runner.bin, tables):
        for one in runs:
            play(checks, run, *one)
    # A run that moved too early was abandoned and repeated.
    moved = [player["address_changes"] for player in server.end()["players"]]
    checks.that(sum(changes % 2 for changes in moved) >= len(runs), f"each game has moved: {moved}")
    slow = sum(late > 0 for *_, late in runs)  # late datagrams of a slow link arrive between the others
    checks.that(sum(changes > 1 for changes in moved) <= slow, f"each game moves once: {moved}")
    checks.end()


if __name__ == "__main__":
    main()
