"""The long run of scripts/soak.sh, inside the test bed: starts the servers, two nodes and the game,
lets nodes die and return and sample games come and go, and samples the game's process."""
import json
import os
import pathlib
import subprocess
import sys
import threading

import demo_bed
import soak_echo
import soak_judge
import soak_nodes
import soak_process
import soak_run

OTHER_SERVER = "198.51.100.11:7000"    # of the sample games that come and go
LAST_NODE = 1
NEEDED = ("flows with data", "answered", "streams", "reports", "tables", "killed")


class Game:
    """soak_game, what it says, and what the system says of its process."""

    def __init__(self, program, folder, mended, flows):
        self.process = subprocess.Popen([program, folder, mended], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.said, self.flows = {}, flows
        self.seen = soak_process.Process(self.process.pid)
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        for line in self.process.stdout:
            said = json.loads(line)
            self.flows.take(said.pop("traffic"))
            self.said = {**said, "unended": len(self.flows.open),
                         "after end": len(self.flows.after_end)}

    def sample(self):
        """Nothing if the game has not said anything yet."""
        if self.process.poll() is not None:
            raise demo_bed.Failed(f"the game has ended with {self.process.returncode}")
        found = self.seen.sample()
        return {**found, **self.said} if self.said and "processor" in found else None

    def end(self):
        self.process.communicate(timeout=demo_bed.TIMEOUT_S)


class Neighbours:
    """The sample game, which comes and goes on the same machine."""

    def __init__(self, program):
        self.program, self.playing, self.games = program, None, 0
        self.server = demo_bed.GameServer(program, OTHER_SERVER)

    def step(self):
        if self.playing is not None and self.playing.poll() is None:
            return
        self.playing = subprocess.Popen(
            [self.program, "play", OTHER_SERVER, "--seconds", "3"], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.games += 1

    def end(self):
        if self.playing is not None:
            self.playing.wait(timeout=demo_bed.TIMEOUT_S)
        self.server.end()


def play(options, folder):
    programs = options.build / "bin"
    run = soak_run.Run(soak_judge.LIMITS, "the game")
    echo = soak_echo.EchoServer()
    nodes = soak_nodes.Nodes(programs / "vyr_node", options.seed, LAST_NODE)
    neighbours = Neighbours(programs / "vyr_game")
    game = Game(options.build / "tests" / "soak_game", folder, options.mended, run.flows)
    try:
        run.take_samples(options.minutes * 60, game.sample,
                         ((soak_nodes.TROUBLE_S, nodes.next_trouble), (0, neighbours.step)))
    finally:
        game.end()
        neighbours.end()
        nodes.end_all()
        echo.end()
    run.happened = {**nodes.happened(), "sample games": neighbours.games, **game.said}
    return run


def main():
    parser = soak_run.parser(__doc__)
    options = parser.parse_args()
    soak_run.check(parser, options, {options.build / program: "posix" for program in
                                     ("bin/vyr_node", "bin/vyr_game", "tests/soak_game")})
    folder = pathlib.Path(os.environ["VYR_BED_DIR"]) / "game"
    folder.mkdir()
    play(options, folder).finish(options, NEEDED)


if __name__ == "__main__":
    try:
        main()
    except (demo_bed.Failed, ValueError) as failure:
        sys.exit(f"soak: FAILED, {failure}")
