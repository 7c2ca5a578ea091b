"""vyr_client as a Windows program, and what vyr_run says with its help: names that no code page holds, a
second client, a console window, and whether a program is served."""

import os
import pty
import shutil
import subprocess
import tomllib

import support
from conversation import Conversation

LETTERS = "Ümläut 漢字"
GAME = """[[game]]
game_id = 1001
game_paths = ['{path}']
net_mode = {net_mode}
log_level = {log_level}
log_path = '{logs}\\'
"""


class Bench:
    def __init__(self, arguments):
        self.checks = support.Checks()
        self.runner = support.Runner(arguments)
        self.client = self.runner.bin / "vyr_client.exe"
        self.folder = self.runner.stage(arguments.probes / "by_name.exe", "Game.exe")
        self.server = support.EchoServer()
        self.file = self.runner.folder / f"{LETTERS}.toml"

    def run(self, *words):
        done = self.runner.wine([self.client, *words], self.runner.folder)
        return done.returncode, (done.stdout + done.stderr).decode().replace("\r\n", "\n")

    def write(self, net_mode="['TCP']", log_level=5, path=None):
        draft = self.file.with_suffix(".draft")
        draft.write_text(GAME.format(
            path=path or support.windows_path(self.folder / "Game.exe"), net_mode=net_mode,
            log_level=log_level, logs=support.windows_path(self.runner.folder / LETTERS)),
            encoding="utf-8", newline="\n")  # fmt: skip
        os.replace(draft, self.file)

    def serve(self):
        command = [self.client, "serve", "--until-eof", support.windows_path(self.file)]
        client = Conversation(command, self.runner.folder)
        self.checks.equal(client.line_with("ready"), "ready", "the client is ready")
        return client

    def play(self, *options):
        """What vyr_run and the library's log say of a run."""
        command = [self.runner.launcher, *options, support.windows_path(self.folder / "Game.exe"),
                   self.server.address, self.server.port]  # fmt: skip
        done = self.runner.wine(command, self.folder)
        output = done.stdout.decode("utf-8", "replace")
        self.checks.that("echo: hello" in output, f"{options}: the program works", output)
        return done.stderr.decode().replace("\r\n", "\n").splitlines()


def check_names(bench):
    """A sample is written as UTF-8 under a name of any letters, with paths of any letters."""
    name, path = f"sample {LETTERS}.toml", f"C:\\{LETTERS}.exe"
    bench.checks.equal(bench.run("sample", "-o", name, "--game", path), (0, ""), "sample -o")
    text = (bench.runner.folder / name).read_text(encoding="utf-8")
    bench.checks.equal(tomllib.loads(text)["game"][0]["game_paths"], [path], "the path is in it")
    bench.checks.equal(bench.run("check", name), (0, f"{name}: right, 1 game\n"), "check")
    bench.checks.equal(bench.run("check", "."), (1, ".: is a directory, not a file\n"), "a directory")
    bench.checks.equal(bench.run("check", "none"), (1, "none: does not exist\n"), "a missing file")


def shown(command, folder):
    """What a terminal shows of a program, apart from control sequences."""
    master, slave = pty.openpty()
    process = subprocess.Popen([support.WINE, *map(str, command)], cwd=folder, stdin=slave, stdout=slave,
                               stderr=slave, start_new_session=True)  # fmt: skip
    os.close(slave)
    text = b""
    try:
        while block := os.read(master, 65536):
            text += block
    except OSError:
        pass  # the program has ended
    os.close(master)
    process.wait(support.LONGEST_RUN_S)
    return text.decode("utf-8", "replace")


def check_console(bench):
    """A console window shows every letter, on both streams."""
    name = f"sample {LETTERS}.toml"
    said = shown([bench.client, "explain", "198.51.100.10:8080", "tcp", "--file", name], bench.runner.folder)
    bench.checks.that(f"asked as C:\\{LETTERS}.exe (game 10001)" in said, "standard output", said)
    bench.checks.that("acc_reason: 0" in said, "to its end", said)
    said = shown([bench.client, "check", f"no {LETTERS}"], bench.runner.folder)
    bench.checks.that(f"no {LETTERS}: does not exist" in said, "standard error", said)
    said = shown([bench.runner.launcher, f"no {LETTERS}"], bench.runner.folder)
    bench.checks.that(f"vyr_run: program not found: no {LETTERS}" in said, "vyr_run", said)


def check_second_client(bench):
    code, said = bench.run("serve", support.windows_path(bench.file))
    bench.checks.equal(code, 1, "a second client is refused")
    bench.checks.that("another vyr_client serves already: process " in said, "it names the first", said)
    bench.checks.that(support.windows_path(bench.file) in said, "and its file", said)


def check_edits(bench, client):
    """The library's side of an edit is in route_tables.py."""
    bench.file.rename(bench.file.with_suffix(".away"))
    bench.checks.that(client.line_with("has vanished; what was served before stays"), "the file vanishes")
    said = bench.play()
    bench.checks.that("vyr_run: served as game 1001" in said[0], "the tables stay", str(said))
    bench.write()
    bench.checks.that(client.line_with("can be read again"), "the file is back")


def check_launcher(bench, client):
    checks, tables = bench.checks, f"(tables of {bench.file.name})"
    path = support.windows_path(bench.folder / "Game.exe")
    checks.equal(bench.play(), [f"vyr_run: served as game 1001 {tables}"], "a game that is served")
    checks.equal(bench.play("--quiet"), [], "--quiet")
    checks.equal(bench.play("--bare"), [], "without the library there is nothing to say")
    library = bench.folder / "other.dll"
    shutil.copy(bench.runner.library, library)
    said = bench.play("--library", support.windows_path(library))
    checks.equal(said, [f"vyr_run: with {support.windows_path(library)}, which has tables of its own or none"],
                 "another library")  # fmt: skip
    said = bench.play("--log", "5")
    checks.equal(said[0], f"vyr_run: served as game 1001 {tables}", "--log: the line comes first")
    checks.that(all("][5][lsp]" in line for line in said[1:]), "--log 5 shows lines of level 5", str(said))
    checks.that(any("will accelerate game process:Game.exe" in line for line in said), "the first", str(said))
    checks.that(any("accelerate：" in line for line in said), "signs of the log's own code page", str(said))
    said = bench.play("--log", "0")
    checks.equal(said[1], "vyr_run: only lines of level 5 and above are written: that is the game's log_level",
                 "a level that is not written")  # fmt: skip
    for change, wanted in (
        ({"net_mode": 0}, f"listed as game 1001, but its net_mode is 0: nothing is relayed {tables}"),
        ({"path": "C:\\other.exe"},
         f'not listed: {path} {tables}; vyr_client explain ADDRESS:PORT tcp --game "{path}"'),
    ):  # fmt: skip
        bench.write(**change)
        checks.that(client.line_with("taken over: games"), f"{change} is taken over")
        checks.equal(bench.play(), [f"vyr_run: {wanted}"], str(change))
    bench.write(log_level=0)
    checks.that(client.line_with("taken over: games"), "a log of everything")
    said = bench.play("--log", "0", "--quiet")
    log = next((bench.runner.folder / LETTERS).glob("*.log"), None)
    checks.that(log is not None, "the log is in its folder")
    for words in ("[0][lsp]", "WSPCloseSocket"):
        checks.that(any(words in line for line in said), f"--log 0 shows {words}", "\n".join(said))


def check_after_the_client(bench):
    said = bench.play()
    bench.checks.equal(said, ["vyr_run: not served: there are no tables (vyr_client serve FILE)"], "no client")


def main():
    arguments = support.parse_arguments()
    support.needs_bed()
    bench = Bench(arguments)
    check_names(bench)
    check_console(bench)
    bench.write()
    client = bench.serve()
    check_second_client(bench)
    check_edits(bench, client)
    check_launcher(bench, client)
    bench.checks.equal(client.end(), 0, "the client's exit code")
    check_after_the_client(bench)
    again = bench.serve()
    bench.checks.equal(again.end(), 0, "another client may serve now")
    bench.checks.end()


if __name__ == "__main__":
    main()
