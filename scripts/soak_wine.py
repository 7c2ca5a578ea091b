"""The long run of scripts/soak.sh --wine, inside the test bed: a Windows game plays with the library's DLL, beside
other programs that come and go with it, while nodes and client programs die and return and the tables change;
the game's process and Wine's server are watched from outside."""
import contextlib
import dataclasses
import json
import os
import pathlib
import shutil
import subprocess
import sys
import threading
import time

import bed_processes
import demo_bed
import soak_clients
import soak_echo
import soak_judge
import soak_nodes
import soak_process
import soak_programs
import soak_reports
import soak_run
import switch_run

GAME_ID, OTHER_GAME_ID = 10001, 10002
GAME = "soak_game.exe"
SERVER_ENDED = 3   # exit code
SERVER_ENDED_WORDS = "Wine's server has ended by itself, and the run with it"
LONGEST_WAIT_S = 60.0
TABLES_S = 1.5     # from one change of the tables to the next
# What differs from the tables of a short run: the log may not reach its limit, and a flow is to outlive many nodes.
FOR_LONG = {"log_level = 4": "log_level = 5", "max_link_switch_count = 1": "max_link_switch_count = 1000",
            "max_link_except_rep_num = 6": "max_link_except_rep_num = 1000"}
LIMITS = (
    *(limit for limit in soak_judge.LIMITS if limit.name not in ("views", "blocks")),
    soak_judge.Limit("mappings", "", 12),
    soak_judge.Limit("server fds", "", 40, 0.35),
    soak_judge.Limit("server memory", "KiB", 1536, 0.03),
)
NEEDED = ("flows with data", "answered", "streams", "reports", "tables", "watchers killed", "died with a mutex",
          "programs")


class ServerEnded(demo_bed.Failed):
    """The server of Wine 8.0 may end with a failed assertion where a program without the DLL calls select
    (devkit/winsock_host/merged_select.h)."""


class Tables:
    """Another way to the servers at each change: through node A, through node B, through none."""

    def __init__(self, path, game, others, logs, mended):
        self.logs = logs
        logs = demo_bed.windows_path(logs) + "\\"
        games = [switch_run.game(map(demo_bed.windows_path, paths), logs, number).rstrip()
                 for number, paths in ((GAME_ID, [game]), (OTHER_GAME_ID, others))]
        self.games = "\n".join(f"{one}\nmend = '{mended}'\n" for one in games)
        for before, after in FOR_LONG.items():
            self.games = self.games.replace(before, after)
        self.path, self.changes = path, 0
        self.change()

    def change(self):
        first, decision = "AB"[self.changes % 2], "DIRECT" if self.changes % 5 == 4 else "ACCE"
        routes = switch_run.ROUTES.replace("ref_default = { node = 'node A',",
                                           f"ref_default = {{ node = 'node {first}', decision = 'DECISION_{decision}',")
        new = self.path.with_suffix(".new")
        new.write_text(self.games + routes)
        os.replace(new, self.path)
        self.changes += 1

    def log_size(self):
        return sum(path.stat().st_size for path in self.logs.glob("*"))


class Game:
    """The Windows game, what it says, and what the system says of its process."""

    def __init__(self, launcher, program, options):
        self.process = subprocess.Popen(
            demo_bed.wine(launcher, "--quiet", "--", demo_bed.windows_path(program),
                          options.leak_every, options.calm),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.said, self.began = {}, threading.Event()
        self.server = soak_process.Process(bed_processes.wine_server())
        threading.Thread(target=self._listen, daemon=True).start()
        self._wait_until(self.began.is_set, "the game does not begin")
        found = bed_processes.windows_processes(program.name)
        if len(found) != 1:
            raise demo_bed.Failed(f"of {program.name}, {len(found)} processes run")
        self.seen = soak_process.Process(found[0])

    def _wait_until(self, condition, failure):
        end = time.monotonic() + LONGEST_WAIT_S
        while not condition():
            if not self.server.lives():
                raise ServerEnded(SERVER_ENDED_WORDS)
            if time.monotonic() > end:
                raise demo_bed.Failed(failure)
            time.sleep(demo_bed.POLL_S)

    def _listen(self):
        for line in self.process.stdout:
            self.said = json.loads(line)
            self.began.set()

    def sample(self):
        """Nothing at the first look."""
        if not self.server.lives():
            raise ServerEnded(SERVER_ENDED_WORDS)
        try:
            game, server = self.seen.sample(), self.server.sample()
            mappings = self.seen.mappings()
        except (FileNotFoundError, ProcessLookupError):
            raise demo_bed.Failed(f"the game has ended with {self.process.poll()}") from None
        if "processor" not in game:
            return None
        return {**game, "mappings": mappings, "server fds": server["descriptors"],
                "server memory": server["memory"], "server processor": server["processor"], **self.said}

    def end(self):
        self.process.stdin.close()
        self._wait_until(lambda: self.process.poll() is not None, "the game does not end")
        if self.process.returncode != 0:
            raise demo_bed.Failed(f"the game ended with {self.process.returncode}")


@dataclasses.dataclass
class World:
    """The game, and everything around it."""
    nodes: soak_nodes.Nodes
    programs: soak_programs.Programs
    tables: Tables
    reports: soak_reports.Reports
    clients: soak_clients.Clients
    game: Game

    def sample(self):
        self.reports.settle()
        figures = self.game.sample()
        flows = self.reports.flows
        return figures and {**figures, "unended": len(flows.open), "after end": len(flows.after_end)}

    def steps(self):
        return ((soak_nodes.TROUBLE_S, self.nodes.next_trouble), (TABLES_S, self.tables.change),
                (soak_clients.DEATH_S, self.clients.next_death), (1.0, self.clients.keep),
                (0.5, self.programs.step))

    def end(self, wrong):
        """Appends to `wrong` what does not end as it should."""
        windows = (self.programs.end, self.game.end, self.clients.end) if self.game.server.lives() else ()
        for one in (*windows, self.nodes.end_all):
            try:
                one()
            except (demo_bed.Failed, subprocess.TimeoutExpired) as failure:
                wrong.append(str(failure))

    def happened(self):
        said = {name: number for name, number in self.game.said.items() if name not in ("pid", "handles")}
        return {**self.nodes.happened(), **self.clients.happened(), **self.reports.happened(),
                "tables": self.tables.changes, "log KiB": self.tables.log_size() // 1024, **self.programs.happened(), **said,
                "after end": len(self.reports.flows.after_end)}


def begin(options, run, folder):
    windows = options.windows / "bin"
    launcher, game = windows / "vyr_run.exe", folder / GAME
    shutil.copy(options.windows / "tests/windows/probes/soak_windows_game.exe", game)
    logs = folder / "logs"
    logs.mkdir()
    programs = soak_programs.Programs(launcher, windows / "vyr_game.exe", options.build / "bin/vyr_game", folder)
    nodes = soak_nodes.Nodes(options.build / "bin/vyr_node", options.seed, switch_run.LAST_NODE)
    tables = Tables(folder / "games.toml", game, programs.paths(), logs, options.mended)
    reports = soak_reports.Reports(run.flows, GAME_ID)
    clients = soak_clients.Clients(windows, options.windows / "tests/windows/probes/hold_mutex.exe", tables.path,
                                   reports)
    return World(nodes, programs, tables, reports, clients, Game(launcher, game, options))


def arguments():
    parser = soak_run.parser(__doc__)
    parser.add_argument("--windows", type=pathlib.Path, default=demo_bed.TREE / "build" / "windows-x86",
                        help="with the Windows programs")
    parser.add_argument("--leak-every", type=int, default=0, metavar="N",
                        help="the game forgets to close every N-th socket, which has to be seen")
    parser.add_argument("--calm", type=int, default=1, metavar="N",
                        help="the game pauses N times as long, for a busy machine")
    options = parser.parse_args()
    options.build, options.windows = options.build.resolve(), options.windows.resolve()
    if shutil.which("wine") is None:
        print("soak: no Wine here")
        sys.exit(77)
    windows = [f"bin/{name}" for name in ("vyr_run.exe", "vyr_client.exe", "vyr_game.exe", "vyr_lsp.dll")]
    windows += [f"tests/windows/probes/{name}.exe" for name in ("soak_windows_game", "hold_mutex")]
    soak_run.check(parser, options, {
        **{options.build / "bin" / name: "posix" for name in ("vyr_node", "vyr_game")},
        **{options.windows / name: "windows-x86" for name in windows}})
    return options


def main():
    options = arguments()
    folder = pathlib.Path(os.environ["VYR_WINEPREFIX"]) / "drive_c" / "soak"
    folder.mkdir()
    run = soak_run.Run(LIMITS, "the Windows game under Wine")
    echo = soak_echo.EchoServer()
    world = begin(options, run, folder)
    ended_early = False
    try:
        run.take_samples(options.minutes * 60, world.sample, world.steps())
    except ServerEnded as failure:
        print(failure)
        ended_early = True
    except demo_bed.Failed as failure:
        run.wrong.append(str(failure))
    finally:
        world.end(run.wrong)
        echo.end()
    run.happened = world.happened()
    if not ended_early:
        run.finish(options, NEEDED)
        return
    with contextlib.suppress(ValueError):  # too few samples to judge
        run.finish(options, ())
    sys.exit(SERVER_ENDED)


if __name__ == "__main__":
    try:
        main()
    except ServerEnded as failure:
        print(failure)
        sys.exit(SERVER_ENDED)
    except (demo_bed.Failed, ValueError) as failure:
        sys.exit(f"soak: FAILED, {failure}")
