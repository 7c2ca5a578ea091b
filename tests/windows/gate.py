"""Which processes are served: one real process of each kind. A served process gets the hooked call
table. A log file is written for listed games and the speed tester only."""

import contextlib
import shutil
import subprocess

import support

HOOKED = support.REPLACED_ENTRIES


class Gate:
    def __init__(self, arguments):
        self.checks = support.Checks()
        self.runner = support.Runner(arguments)
        self.server = support.EchoServer()
        self.arguments = arguments

    def run(self, name, *extra, probe="by_name.exe", folder=None):
        if folder is None:
            folder = self.runner.stage(self.arguments.probes / probe, name)
        words = [self.server.address, self.server.port, *extra]
        result = self.runner.launch(folder, name, map(str, words))
        result.program = name
        return result

    def expect(self, what, result, served, log_files):
        """`log_files` returns the log files of a folder; None if there must be none anywhere."""
        tables = [start["replaced_entries"] for start in result.starts()]
        wanted = HOOKED if served else 0
        self.checks.that(result.output.count("echo: hello") == 2, f"{what}: the program works", result.output)
        self.checks.that(
            tables and set(tables) == {wanted}, f"{what}: tables with {wanted} entries", str(tables)
        )
        verdict = "[will] hook" if served else "[not] hook"
        self.checks.that(verdict in result.debug_output(), f"{what}: {verdict}", result.debug_output())
        found = list(result.folder.rglob("*.log"))
        if log_files is None:
            found += support.DRIVE_C.glob(f"*{result.program}*.log")
            self.checks.equal(found, [], f"{what}: no log file")
        else:
            self.checks.equal(len(log_files()), 1, f"{what}: one log file")

    @contextlib.contextmanager
    def client(self, text):
        """The restriction region exists for the duration of the block."""
        file = self.runner.folder / "games.toml"
        file.write_text(text, encoding="utf-8")
        process = subprocess.Popen(
            [support.WINE, support.client_program(self.arguments.bin), "serve", "--until-eof",
             support.windows_path(file)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        try:
            line = process.stdout.readline().strip()
            self.checks.that("ready" in line, "the client is ready", line)
            yield
        finally:
            process.stdin.close()
            process.wait(support.LONGEST_RUN_S)


def game_entry(path, logs, net_mode="['TCP', 'UDP']"):
    return f"""
[[game]]
game_id = 10001
uin = '20001'
game_paths = ['{support.windows_path(path)}']
net_mode = {net_mode}
log_level = 0
log_path = '{support.windows_path(logs)}\\'
"""


def check_other(gate):
    gate.expect("other", gate.run("program.exe", "-test"), served=False, log_files=None)


def check_net_probe(gate):
    for name, extra, served in (
        ("net_probe.exe", ["-test"], True),
        ("NET_PROBE.EXE", ["x-TEST"], True),
        ("net_probe.exe", [], False),
        ("net_probe.exe", ["-test "], False),
        ("net_probe2.exe", ["-test"], False),
    ):
        gate.expect(f"{name} {extra}", gate.run(name, *extra), served, log_files=None)


def check_speed_tester(gate):
    for name in ("SpeedTester.exe", "speedtester.EXE"):
        # Without a configuration there is no log folder: the file is in the root of the drive.
        before = set(support.DRIVE_C.glob("*.log"))
        result = gate.run(name)
        gate.expect(name, result, True, lambda: set(support.DRIVE_C.glob("*.log")) - before)


def check_game(gate):
    folder = gate.runner.stage(gate.arguments.probes / "by_name.exe", "Game.exe")
    logs = gate.runner.folder / "logs"
    logs.mkdir()
    shutil.copy(folder / "Game.exe", folder / "Game2.exe")

    def log_files():
        return list(logs.glob("*.log"))

    # Listed with different letter case, which the comparison ignores.
    listed = folder / "gAME.EXE"
    with gate.client(game_entry(listed, logs)):
        result = gate.run("Game.exe", folder=folder)
        gate.expect("game", result, True, log_files)
        text = b"".join(file.read_bytes() for file in log_files()).decode("gbk", "replace")
        for words in ("Basic info,uin=20001", "will accelerate game process:", "WSPSocket: err=0, ",
                      "WSPConnect: ret=0, ", "WSPCloseSocket: ret=0, "):  # fmt: skip
            gate.checks.that(words in text, f"game: the log says {words!r}", text[:2000])
        name = [file.name for file in log_files()]
        gate.checks.that(name and name[0].startswith("[Game.exe][P"), "game: name of the log", str(name))
        result = gate.run("Game2.exe", folder=folder)
        gate.expect("beside the game", result, served=False, log_files=None)
    # The region exists as long as a process has it open.
    gate.expect("after the client", gate.run("Game.exe", folder=folder), False, None)


def check_game_without_mode(gate):
    folder = gate.runner.stage(gate.arguments.probes / "by_name.exe", "Game.exe")
    with gate.client(game_entry(folder / "Game.exe", folder, "0")):
        result = gate.run("Game.exe", folder=folder)
        gate.expect("game with net_mode 0", result, served=False, log_files=None)
        words = "Based on server config, the game will not be accelerated:Game.exe"
        gate.checks.that(words in result.debug_output(), f"it says {words!r}", result.debug_output())


def check_second_copy(gate):
    for name, extra, first in (("net_probe.exe", ["-test"], HOOKED), ("program.exe", [], 0)):
        folder = gate.runner.stage(gate.arguments.probes / "second_copy.exe", name)
        copy = folder / "second.dll"
        shutil.copy(gate.runner.library, copy)
        result = gate.run(name, support.windows_path(copy), *extra, folder=folder)
        what = f"second copy in {name}"
        gate.checks.that("WSPStartup of the copy: 0" in result.output, f"{what}: starts", result.output)
        gate.checks.that("entries of the copy: 0" in result.output, f"{what}: hooks nothing", result.output)
        gate.checks.that("its socket: made" in result.output, f"{what}: still works", result.output)
        gate.checks.equal(result.starts()[0]["replaced_entries"], first, f"{what}: the first copy")
        said = "CheckCanHook, someone has hooked and not hook" in result.debug_output()
        gate.checks.equal(said, bool(extra), f"{what}: it reports the first copy")


def check_second_start(gate):
    result = gate.run("net_probe.exe", "-test", probe="lifecycle.exe")
    streams = [start for start in result.starts() if start["protocol"] == 6]
    layered = [start for start in streams if start["start"] == streams[0]["start"]]
    gate.checks.equal(
        [start["replaced_entries"] for start in layered], [HOOKED, 0],
        "a protocol's second start gets the base provider's table",
    )  # fmt: skip
    gate.checks.equal(
        result.debug_output().count("CheckCanHook, I am the first and can hook"), 1,
        "the gate decides once for each process",
    )  # fmt: skip


def main():
    arguments = support.parse_arguments()
    support.needs_bed()
    gate = Gate(arguments)
    for check in (check_other, check_net_probe, check_speed_tester, check_second_copy,
                  check_second_start, check_game, check_game_without_mode):  # fmt: skip
        check(gate)
    gate.checks.end()


if __name__ == "__main__":
    main()
