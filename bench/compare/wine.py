"""The 32-bit library under Wine: the sample game's ping at a game's pace, and the start of a program,
in each way of running them. Runs in the test bed; prints JSON."""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

TREE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TREE / "scripts"))
import demo_bed  # noqa: E402
import switch_run  # noqa: E402

BIN = TREE / "build/windows-x86/bin"
NATIVE = TREE / "build/posix/bin"
RELAYED, DIRECT = "198.51.100.10:7000", "198.51.100.12:7000"
RATE = 128
# Figures of the ping in the summary of each game.
PING = ("p50", "p99", "jitter")
PAIRS = (("bare", "wine"), ("unlisted", "bare"), ("direct", "bare"), ("served", "bare"))


def summary_of(command):
    ended = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=True)
    return json.loads(ended.stdout.splitlines()[-1])["servers"][0]["ping_ms"]


def game_ways(game, listed):
    """Each way's command but for the seconds. `game` is a copy in no table, `listed` one that is."""
    run = demo_bed.wine(BIN / "vyr_run.exe", "--quiet")

    def play(program, server):
        return [demo_bed.windows_path(program), "play", server, "--rate", str(RATE), "--size", "100", "--json"]

    return {
        "wine": demo_bed.wine(*play(game, RELAYED)),
        "bare": [*run, "--bare", "--", *play(game, RELAYED)],
        "unlisted": [*run, "--", *play(game, RELAYED)],
        "direct": [*run, "--", *play(listed, DIRECT)],
        "served": [*run, "--", *play(listed, RELAYED)],
    }


def start_ways(program):
    run = demo_bed.wine(BIN / "vyr_run.exe", "--quiet")
    words = [demo_bed.windows_path(program), "--version"]
    return {"wine": demo_bed.wine(*words), "bare": [*run, "--bare", "--", *words],
            "unlisted": [*run, "--", *words]}  # fmt: skip


def seconds_of(command):
    begin = time.monotonic()
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
    return time.monotonic() - begin


def row_of(name, unit, figures):
    """`figures`: way to its figure in each round."""
    row = {"measure": name, "unit": unit, "median": {way: statistics.median(all_) for way, all_ in figures.items()},
           "ratio": {}, "quartiles": {}}  # fmt: skip
    for first, second in PAIRS:
        if first not in figures or second not in figures:
            continue
        ratios = sorted(b / a for a, b in zip(figures[first], figures[second]) if a > 0 and b > 0)
        if not ratios:
            continue
        quarter, pair = len(ratios) // 4, f"{first}/{second}"
        row["ratio"][pair] = statistics.median(ratios)
        row["quartiles"][pair] = [ratios[quarter], ratios[-1 - quarter]]
    return row


def in_turn(rounds, ways, figure_of):
    """Each round begins with another way, so that none always follows the same one."""
    figures = {way: [] for way in ways}
    names = list(ways)
    for turn in range(rounds):
        for way in names[turn % len(names):] + names[: turn % len(names)]:
            figures[way].append(figure_of(ways[way]))
    return figures


def measure(rounds, seconds, folder):
    game, listed = folder / "other.exe", folder / "game.exe"
    for copy in (game, listed):
        copy.write_bytes((BIN / "vyr_game.exe").read_bytes())
    tables = folder / "games.toml"
    logs = folder / "logs"
    logs.mkdir()
    text = switch_run.game([demo_bed.windows_path(listed)], demo_bed.windows_path(logs) + "\\")
    # Delays on a busy machine must not look like a bad link.
    tables.write_text((text + switch_run.ROUTES).replace("\nswitch_open = 1", "\nswitch_open = 0")
                      .replace("log_level = 0", "log_level = 6"))  # fmt: skip
    demo_bed.Node(str(NATIVE / "vyr_node"), "node A", switch_run.NODE_A, 7103)
    for server in (RELAYED, DIRECT):
        demo_bed.GameServer(NATIVE / "vyr_game", server)
    with demo_bed.Client(BIN, tables):
        played = in_turn(rounds, {way: [*command, "--seconds", str(seconds)]
                                  for way, command in game_ways(game, listed).items()}, summary_of)  # fmt: skip
        rows = [row_of(f"ping at {RATE}/s, {name}", "ms", {way: [figures[name] for figures in all_]
                                                          for way, all_ in played.items()})
                for name in PING]  # fmt: skip
        rows.append(row_of("start of a program", "s", in_turn(rounds, start_ways(game), seconds_of)))
    return rows


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=9)
    parser.add_argument("--quick", action="store_true")
    arguments = parser.parse_args()
    for needed in (BIN / "vyr_game.exe", BIN / "vyr_run.exe", NATIVE / "vyr_game"):
        if not needed.exists():
            print(f"wine: no {needed.relative_to(TREE)}; the posix and windows-x86 presets build it",
                  file=sys.stderr)  # fmt: skip
            return 77
    folder = pathlib.Path(tempfile.mkdtemp(dir=os.environ["VYR_BED_DIR"]))
    rows = measure(arguments.rounds, 0.5 if arguments.quick else 2, folder)
    print(json.dumps({"rounds": arguments.rounds, "rows": rows}))
    return 0


if __name__ == "__main__":
    sys.exit(main())
