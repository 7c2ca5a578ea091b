"""A game ends while the client program is stopped in the middle of a report and holds its mutex: the
game waits at most for the time in which the library may stop, and not for the client program."""

import time

import relay_bench
import restarts
import support
from conversation import Conversation

MUTEX = "vyr_log_file_path_named_mutex"  # of the first report in every game
LEAST_CLEANUP_MS = 180  # the library waits 200 ms for its worker; the tick counter is coarse
LONGEST_CLEANUP_MS = 2000  # less than the time of a worker that waits for the reports
LONGEST_END_S = 4.0  # from the cleanup to the end of the process, on a busy machine


def play(stage):
    """Returns the game's output, its exit code, and the time from its last cleanup to its end."""
    runner, server = stage.runner, stage.server
    game = Conversation(
        [runner.bin / "vyr_run.exe", support.windows_path(stage.game / "Game.exe"), relay_bench.SERVER,
         server.port, 1], stage.game,
    )  # fmt: skip
    said = game.line_with("round 1")
    begin = time.monotonic()
    code = game.end()
    return said, code, time.monotonic() - begin


def main():
    stage = restarts.Stage(relay_bench.parse_arguments())
    checks, runner = stage.checks, stage.runner
    with stage.bench.running:
        watch = [runner.bin / "vyr_client.exe", "watch", "--json", "--follow", "--until-eof"]
        watcher = Conversation(watch, runner.folder)
        stage.bench.running.callback(watcher.end)
        said, code, _ = play(stage)
        checks.that(watcher.line_with("loaded"), "the client watches", said)
        checks.that(restarts.ROUND.match(said) and code == 0, "a game with a client that reads", said)
        holder = Conversation([runner.probes / "hold_mutex.exe", MUTEX], runner.folder)
        checks.that(holder.line_with("held"), "the mutex is held")
        said, code, end_s = play(stage)
        holder.end()
        found = restarts.ROUND.match(said)
        checks.that(found and code == 0, f"the game plays and ends with {code}", said)
        took_ms = int(found.group(4)) if found else 0
        print(f"the last cleanup took {took_ms} ms, the process ended {end_s:.1f} s after it")
        checks.that(LEAST_CLEANUP_MS <= took_ms < LONGEST_CLEANUP_MS, "the last cleanup", f"{took_ms} ms")
        checks.that(end_s < LONGEST_END_S, "the process's end", f"{end_s:.1f} s")
    checks.end()


if __name__ == "__main__":
    main()
