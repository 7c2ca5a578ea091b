"""32-bit and 64-bit programs together: either launcher starts both, a child process of the other kind
keeps the library, and one client program of either kind serves games of both at once."""

import concurrent.futures
import json
import re
import shutil
import sys

import relay_bench
import support
from conversation import wait_until

sys.path.insert(0, str(support.ROOT / "scripts"))
import demo_bed  # noqa: E402

PORT = {"x86": 7000, "x64": 7001}
NUMBER = {"x86": 10032, "x64": 10064}
BITS = {"x86": 32, "x64": 64}
SERVED = "net_probe.exe"  # with "-test" at the end of its command line; needs no configuration
CMD = {"x86": "C:\\windows\\syswow64\\cmd.exe", "x64": "C:\\windows\\sysnative\\cmd.exe"}
SECONDS = 3


class Stage(support.StageOfBothKinds):
    def __init__(self, arguments):
        self.node = arguments.node
        self.native_game = arguments.node.parent / "vyr_game"
        super().__init__(arguments, self.node, self.native_game)
        self.launchers = {kind: folder / f"vyr_run{support.SUFFIXES[kind]}.exe" for kind, folder in self.bins.items()}
        needed = [self.launchers["x86"], self.probes["x86"] / "by_name.exe", self.bins["x86"] / "vyr_client.exe",
                  self.bins["x86"] / "vyr_game.exe"]  # fmt: skip
        support.needs_bed(*needed, presets="the windows-x86 preset builds it")

    def stage(self, kind, name):
        folder = self.runner.stage(self.probes[kind] / "by_name.exe", name)
        return support.windows_path(folder / name), folder

    def run(self, launcher, folder, *words):
        trace = folder / "trace.jsonl"
        done = self.runner.wine([launcher, "--trace", support.windows_path(trace), *words], folder)
        return support.Result(done, support.read_trace(trace), folder)


def check_hooked(stage, what, result):
    checks = stage.checks
    checks.equal(result.code, 0, f"{what}: exit code\n{result.errors}")
    checks.that(result.output.count("echo: hello") == 2, f"{what}: the program works", result.output)
    tables = {start["replaced_entries"] for start in result.starts()}
    checks.equal(tables, {support.REPLACED_ENTRIES}, f"{what}: hooked tables")
    checks.that("WSPConnect" in result.calls("library"), f"{what}: calls go through the library")


def check_launchers(stage):
    """Each launcher runs programs of both kinds."""
    server = support.EchoServer()
    for kind in PORT:
        program, folder = stage.stage(kind, SERVED)
        words = [program, server.address, server.port, "-test"]
        alone = stage.runner.wine(words, folder).stdout.decode().replace("\r\n", "\n")
        for front in PORT:
            what = f"{kind} program, {front} launcher"
            result = stage.run(stage.launchers[front], folder, *words)
            check_hooked(stage, what, result)
            stage.checks.equal(result.output, alone, f"{what}: same output")
            stage.checks.equal(result.trace and result.trace[0]["is_x64"], kind == "x64", f"{what}: kind")
            library = f"vyr_lsp{support.SUFFIXES[kind]}.dll"
            stage.checks.that(result.trace and result.trace[0]["library"].endswith("\\" + library),
                              f"{what}: {library}", str(result.trace[:1]))  # fmt: skip
            bare = stage.run(stage.launchers[front], folder, "--bare", *words)
            stage.checks.equal((bare.output, bare.calls("library")), (alone, {}), f"{what}, bare")


def check_children(stage):
    """A shell that uses no sockets itself starts the program."""
    server = support.EchoServer()
    for parent in PORT:
        for kind in PORT:
            program, folder = stage.stage(kind, SERVED)
            line = [CMD[parent], "/c", program, server.address, server.port, "-test"]
            what = f"{kind} child of a {parent} shell"
            result = stage.run(stage.launchers["x86"], folder, *line)
            stage.checks.equal(result.trace and result.trace[0]["is_x64"], parent == "x64", f"{what}: parent")
            check_hooked(stage, what, result)
            bare = stage.run(stage.launchers["x86"], folder, "--bare", *line)
            stage.checks.equal(bare.output, result.output, f"{what}, bare: same output")
            stage.checks.that(bare.starts() and not bare.calls("library"), f"{what}, bare: hosted too",
                              str(bare.trace))  # fmt: skip


def check_missing_files(stage):
    """A launcher names the files that it needs if they are missing."""
    checks, lonely = stage.checks, stage.runner.folder / "lonely"
    lonely.mkdir()
    for kind in PORT:
        name = f"vyr_run{support.SUFFIXES[kind]}.exe"
        shutil.copy(stage.launchers[kind], lonely / name)
    program, folder = stage.stage("x64", "program.exe")
    done = stage.runner.wine([lonely / "vyr_run.exe", program], folder)
    said = done.stderr.decode()
    checks.that(done.returncode == 121 and "winsock_host64.dll" in said, "no 64-bit host", said)
    (lonely / "vyr_run64.exe").unlink()
    done = stage.runner.wine([lonely / "vyr_run.exe", program], folder)
    said = done.stderr.decode()
    checks.that(done.returncode == 121 and "vyr_run64.exe" in said, "no 64-bit launcher", said)
    wrong = stage.bins["x86"] / "vyr_lsp.dll"
    done = stage.runner.wine([stage.launchers["x86"], "--library", support.windows_path(wrong), program], folder)
    said = done.stderr.decode()
    checks.that(done.returncode == 122 and "64-bit" in said, "a library of the other kind", said)


class Games:
    """A 32-bit and a 64-bit game, served by one client program of a given kind."""

    def __init__(self, stage, client):
        self.stage, self.client = stage, client
        self.name = f"{client} client"
        self.folder = stage.runner.folder / f"served_by_{client}"
        self.logs = {}
        self.paths = {}
        text = ""
        for kind in PORT:
            name = f"Game_{kind}.exe"
            self.paths[kind] = stage.runner.stage(stage.bins[kind] / "vyr_game.exe", name) / name
            self.logs[kind] = self.folder / kind
            self.logs[kind].mkdir(parents=True)
            text += relay_bench.GAME.format(
                number=NUMBER[kind], games=f"'{support.windows_path(self.paths[kind])}'", protocols=["TCP", "UDP"],
                log_level=0, logs=support.windows_path(self.logs[kind]) + "\\")  # fmt: skip
        self.tables = self.folder / "games.toml"
        self.tables.write_text(text + relay_bench.ROUTES.format())

    def play(self, kind):
        server = f"{relay_bench.SERVER}:{PORT[kind]}"
        done = self.stage.runner.wine(
            [self.stage.launchers["x86"], "--", support.windows_path(self.paths[kind]), "play", server,
             "--lobby", server, "--rate", 20, "--seconds", SECONDS, "--json"], self.paths[kind].parent)
        self.stage.checks.equal(done.returncode, 0, f"{self.name}: the {kind} game plays\n{done.stderr.decode()}")
        return json.loads(done.stdout.decode().splitlines()[-1])

    def check(self):
        checks, page = self.stage.checks, self.folder / "page.html"
        node = relay_bench.Node(self.stage.node)
        servers = [demo_bed.GameServer(self.stage.native_game, f"{relay_bench.SERVER}:{port}")
                   for port in PORT.values()]  # fmt: skip
        programs = self.stage.bins[self.client]
        with demo_bed.Client(programs, self.tables), demo_bed.Watcher(programs, page) as watcher:
            with concurrent.futures.ThreadPoolExecutor(len(PORT)) as pool:
                summaries = dict(zip(PORT, pool.map(self.play, PORT)))
        wait_until(lambda: not node.command(command="connections")["connections"])
        flows = node.command(command="flows")["flows"] + node.named("flow_closed")
        node.end()
        for server in servers:
            server.end()
        for kind, summary in summaries.items():
            self.check_game(kind, summary, node, flows)
        loaded = {(report["process_name"], report["game_id"], report["is_x64"])
                  for report in watcher.named("loaded")}  # fmt: skip
        wanted = {(path.name, NUMBER[kind], int(kind == "x64")) for kind, path in self.paths.items()}
        checks.equal(loaded, wanted, f"{self.name}: which processes have the library, and of which kind")
        data = re.search(r'id="data">(.*?)</script>', page.read_text(encoding="utf-8"), re.S).group(1)
        shown = {(one["name"], one["gameId"], one["bits"]) for one in json.loads(data)["processes"]}
        wanted = {(path.name, NUMBER[kind], BITS[kind]) for kind, path in self.paths.items()}
        checks.equal(shown, wanted, f"{self.name}: the processes on the page")

    def check_game(self, kind, summary, node, flows):
        checks, what = self.stage.checks, f"{self.name}, {kind} game"
        server = f"{relay_bench.SERVER}:{PORT[kind]}"
        beats = summary["servers"][0]
        checks.that(beats["sent"] > 0 and beats["lost"] == 0, f"{what}: datagrams are answered", str(beats))
        carried = sum(flow["datagrams_to_server"] for flow in flows if flow["game"] == server)
        checks.that(carried >= beats["sent"], f"{what}: datagrams by the node", f"{carried} of {beats}")
        checks.that(server in node.games(), f"{what}: lobby by the node", str(node.games()))
        logs = list(self.logs[kind].glob("*.log"))
        checks.equal(len(logs), 1, f"{what}: one log")


def main():
    stage = Stage(support.parse_arguments(
        ("--node", {"type": support.pathlib.Path, "required": True}),
        ("--other", {"type": support.pathlib.Path, "required": True})))  # fmt: skip
    check_launchers(stage)
    check_children(stage)
    check_missing_files(stage)
    for client, programs in stage.bins.items():
        if (programs / "vyr_client.exe").exists():  # of 64 bits only where it has been asked for
            Games(stage, client).check()
    stage.checks.end()


if __name__ == "__main__":
    main()
