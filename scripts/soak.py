"""The long run of scripts/soak.sh, inside the test bed: starts the servers, two nodes and the game,
lets nodes die and return and sample games come and go, and samples the game's process."""
import argparse
import asyncio
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time

import demo_bed
import soak_flows
import soak_judge

SERVER = ("198.51.100.10", 7000)       # of the game with the library
OTHER_SERVER = "198.51.100.11:7000"    # of the sample games that come and go
NODES = ("198.51.100.20", "198.51.100.21")
SAMPLE_S = 1.0
TROUBLE_S = 4.0    # from one trouble to the next
PROGRESS_S = 15.0
TICKS = os.sysconf("SC_CLK_TCK")

# What a node does for a while; between two of these it is well, or dead.
TROUBLES = ({"on_request": "silent"}, {"on_request": "close"}, {"result": 7}, {"server": "refuse"},
            {"data_up_loss": 40, "data_down_loss": 40, "probe_up_loss": 40, "probe_down_loss": 40},
            {"answer_delay_ms": 1500}, {"freeze": 1}, {"data_down_jitter_ms": 60})


# --- the game's server: answers everything with the same bytes ----------------------------------

class EchoDatagrams(asyncio.DatagramProtocol):
    def connection_made(self, transport):
        self.transport = transport

    def datagram_received(self, data, addr):
        self.transport.sendto(data, addr)


async def echo_stream(reader, writer):
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
    except OSError:
        pass  # the other side is gone, as is usual here
    finally:
        writer.close()


async def serve_echo():
    loop = asyncio.get_running_loop()
    await loop.create_datagram_endpoint(EchoDatagrams, local_addr=SERVER)
    server = await asyncio.start_server(echo_stream, *SERVER)
    print("ready", flush=True)
    await server.serve_forever()


# --- the world ----------------------------------------------------------------------------------

class Nodes:
    """Two nodes, of which one at a time is in trouble: dead, or badly behaved."""

    def __init__(self, program, seed):
        self.program, self.random = program, random.Random(seed)
        self.alive = [self.start(0), self.start(1)]
        self.deaths, self.troubles, self.carried = 0, 0, 0
        self.in_trouble = None

    def start(self, which):
        return demo_bed.Node(self.program, f"node {'AB'[which]}", NODES[which], 7101 + which,
                             "--node-id", "1")

    def next_trouble(self):
        """Ends the trouble of one node, and begins that of another or of the same."""
        if self.in_trouble is not None:
            if self.alive[self.in_trouble] is None:
                try:
                    self.alive[self.in_trouble] = self.start(self.in_trouble)
                except demo_bed.Failed:
                    return  # a socket of the game has its port for the moment: at the next turn
            else:
                self.alive[self.in_trouble].command(command="restore")
            self.in_trouble = None
            return
        which = self.in_trouble = self.random.randrange(2)
        if self.random.random() < 0.4:
            self.end(which, signal.SIGKILL)
            self.deaths += 1
        else:
            self.alive[which].set(**self.random.choice(TROUBLES))
            self.troubles += 1

    def end(self, which, how=signal.SIGTERM):
        node, self.alive[which] = self.alive[which], None
        if node is None:
            return
        self.carried += len(node.named("first_data"))
        node.process.send_signal(how)
        node.process.wait(timeout=demo_bed.TIMEOUT_S)

    def end_all(self):
        for which in (0, 1):
            self.end(which)


class Game:
    """soak_game, what it says, and what the system says of its process."""

    def __init__(self, program, folder, mended):
        self.process = subprocess.Popen([program, folder, mended], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, text=True)
        self.said, self.flows = {}, soak_flows.Flows()
        self.used, self.used_at = None, 0.0
        threading.Thread(target=self._listen, daemon=True).start()

    def _listen(self):
        for line in self.process.stdout:
            said = json.loads(line)
            self.flows.take(said.pop("traffic"))
            self.said = {**said, "unended": len(self.flows.open),
                         "after end": len(self.flows.after_end)}

    def sample(self, at):
        """None if the game has not said anything yet."""
        if self.process.poll() is not None:
            raise demo_bed.Failed(f"the game has ended with {self.process.returncode}")
        folder = pathlib.Path("/proc") / str(self.process.pid)
        status = dict(line.split(":", 1) for line in (folder / "status").read_text().splitlines())
        fields = (folder / "stat").read_text().rsplit(")", 1)[1].split()
        used, now = (int(fields[11]) + int(fields[12])) / TICKS, time.monotonic()
        before, before_at = self.used, self.used_at
        self.used, self.used_at = used, now
        if not self.said or before is None:
            return None
        return {"at": round(at, 2), "descriptors": len(os.listdir(folder / "fd")),
                "threads": int(status["Threads"]), "memory": int(status["RssAnon"].split()[0]),
                "processor": round(100 * (used - before) / (now - before_at), 2), **self.said}

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
    """The samples of the run, and what happened in it."""
    programs = options.build / "bin"
    echo = subprocess.Popen([sys.executable, "-B", __file__, "--echo"], stdout=subprocess.PIPE,
                            text=True)
    echo.stdout.readline()
    nodes = Nodes(programs / "vyr_node", options.seed)
    neighbours = Neighbours(programs / "vyr_game")
    game = Game(options.build / "tests" / "soak_game", folder, options.mended)
    samples = []
    begin = time.monotonic()
    next_trouble, next_word = TROUBLE_S, PROGRESS_S
    try:
        while (at := time.monotonic() - begin) < options.minutes * 60:
            if sample := game.sample(at):
                samples.append(sample)
            if at >= next_trouble:
                nodes.next_trouble()
                next_trouble += TROUBLE_S
            neighbours.step()
            if at >= next_word and samples:
                next_word += PROGRESS_S
                last = samples[-1]
                print(f"{at:5.0f} s  " + "  ".join(f"{limit.name} {last[limit.name]:.0f}"
                                                   for limit in soak_judge.LIMITS), flush=True)
            time.sleep(max(0.0, SAMPLE_S - (time.monotonic() - begin - at)))
    finally:
        game.end()
        neighbours.end()
        nodes.end_all()
        echo.kill()
        echo.wait()
    happened = {"node deaths": nodes.deaths, "node troubles": nodes.troubles,
                "flows with data": nodes.carried, "sample games": neighbours.games, **game.said}
    return samples, happened, game.flows


def wrong_with(happened):
    """What makes the run worth nothing, or worse."""
    wrong = []
    if happened.get("wrong"):
        wrong.append(f"{happened['wrong']} messages were altered")
    for name in ("flows with data", "answered", "streams", "reports", "tables", "killed"):
        if not happened.get(name):
            wrong.append(f"nothing happened: {name} is 0")
    return wrong


def arguments():
    parser = argparse.ArgumentParser(prog="soak.sh", description=__doc__)
    parser.add_argument("--minutes", type=float, required=True)
    parser.add_argument("--json", type=pathlib.Path, help="where to write the samples")
    parser.add_argument("--picture", type=pathlib.Path, help="where to draw them, as SVG")
    parser.add_argument("--mended", choices=("all", "none"), default="all")
    parser.add_argument("--seed", type=int, default=1, help="of the troubles of the nodes")
    parser.add_argument("--build", type=pathlib.Path, default=demo_bed.TREE / "build" / "posix")
    options = parser.parse_args()
    if options.minutes <= 0:
        parser.error("--minutes is more than 0")
    for program in ("bin/vyr_node", "bin/vyr_game", "tests/soak_game"):
        if not (options.build / program).exists():
            parser.error(f"{options.build / program} is not there: cmake --build --preset posix")
    return options


def main():
    if sys.argv[1:] == ["--echo"]:
        asyncio.run(serve_echo())
    options = arguments()
    folder = pathlib.Path(os.environ["VYR_BED_DIR"]) / "game"
    folder.mkdir()
    samples, happened, flows = play(options, folder)
    verdicts = soak_judge.judge(samples)
    words = ", ".join(f"{name} {number}" for name, number in happened.items())
    print(f"{len(samples)} samples in {options.minutes:g} minutes; {words}")
    for verdict in verdicts:
        print(verdict.line())
    if options.json:
        options.json.write_text(json.dumps({
            "minutes": options.minutes, "mended": options.mended, "seed": options.seed,
            "happened": happened, "samples": samples, "flows": flows.left(),
            "verdicts": {one.limit.name: {"first": one.first, "last": one.last,
                                          "growth": one.growth, "allowed": one.allowed,
                                          "grows": one.grows} for one in verdicts}}, indent=1) + "\n")
    if options.picture:
        title = f"{options.minutes:g} minutes of the game, mended: {options.mended}"
        options.picture.write_text(soak_judge.picture(samples, verdicts, title))
    if wrong := wrong_with(happened):
        raise demo_bed.Failed("; ".join(wrong))
    if any(verdict.grows for verdict in verdicts):
        raise demo_bed.Failed("something grows")


if __name__ == "__main__":
    try:
        main()
    except (demo_bed.Failed, ValueError) as failure:
        sys.exit(f"soak: FAILED, {failure}")
