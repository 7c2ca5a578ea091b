"""Unmodified third-party programs as games: their connections go through a node, which reports their
servers, and their work has the same result as without the library. A media tool connects in a select
loop, a JavaScript runtime with extension functions and overlapped calls, with many connections at
once. A bundler that only serves is a game, too: connections that it accepts are not relayed."""

import hashlib
import json
import os
import re
import subprocess

import real_programs
import relay_bench
import support
from web_server import WebServer

FETCHES = 59  # sixty connections at once, with the upload
UPLOAD = 8 << 20
LONGEST_S = 120


class Stage(support.Stage):
    """The programs, each in a folder of its own, all listed as games."""

    def __init__(self, arguments):
        super().__init__(arguments, arguments.node)
        programs = real_programs.programs_folder(arguments.kind)
        self.paths = {}
        for name in ("ffmpeg.exe", "node.exe", "esbuild.exe"):
            self.paths[name] = self.runner.stage(programs / name, name) / name
        self.bench = relay_bench.Bench(arguments, self.runner, self.paths.values())

    def command(self, name, *arguments):
        launcher = self.runner.launcher
        words = [support.WINE, launcher, "--", support.windows_path(self.paths[name]), *arguments]
        return [str(word) for word in words]

    def runs(self, name, *arguments):
        done = subprocess.run(
            self.command(name, *arguments), cwd=self.paths[name].parent, stdin=subprocess.DEVNULL,
            capture_output=True, timeout=LONGEST_S, check=False,
        )  # fmt: skip
        self.checks.equal(done.returncode, 0, f"{name}: exit code")
        return done.stderr.decode("utf-8", "replace")

    def asked_the_node(self, name, server, before, count):
        games = self.bench.node.games()[before:]
        self.checks.equal(games, [server.address] * count, f"{name}: the servers requested from the node")
        self.checks.equal(server.peers, {relay_bench.NODE}, f"{name}: the server saw only the node")
        log = self.bench.log()
        redirects = re.findall(r"will accelerate", log)
        self.checks.that(redirects, f"{name}: its log reports it", log[-2000:])


def media_tool(stage):
    body, samples = real_programs.wave_file()
    server = WebServer({"": body}, at_once=FETCHES + 1)
    before = len(stage.bench.node.games())
    errors = stage.runs("ffmpeg.exe", "-v", "error", "-i", f"http://{server.address}/tone.wav",
                        "-f", "s16le", "-c:a", "pcm_s16le", "out.pcm")  # fmt: skip
    out = stage.paths["ffmpeg.exe"].parent / "out.pcm"
    got = out.read_bytes() if out.exists() else b""
    stage.checks.that(got == samples, "ffmpeg.exe: every sample arrived", errors)
    stage.asked_the_node("ffmpeg.exe", server, before, 1)


def runtime(stage):
    checks = stage.checks
    body = os.urandom(1 << 20)
    server = WebServer({"": body}, at_once=FETCHES + 1)
    before = len(stage.bench.node.games())
    script = support.ROOT / "tests/windows/probes/fetcher.js"
    out = stage.paths["node.exe"].parent / "out.json"
    errors = stage.runs("node.exe", support.windows_path(script), support.windows_path(out),
                        f"http://{server.address}", FETCHES, UPLOAD)  # fmt: skip
    if not checks.that(out.exists(), "node.exe: it finishes its work", errors):
        return
    result = json.loads(out.read_text())
    whole = hashlib.sha256(body).hexdigest()
    fetched = [one for one in result["seen"] if one["path"] != "/upload"]
    checks.equal(len(fetched), FETCHES, "node.exe: fetches")
    wrong = [one for one in fetched if (one["status"], one["hash"]) != (200, whole)]
    checks.equal(wrong, [], "node.exe: every byte of every fetch arrived")
    checks.equal(server.uploads, [result["uploaded"]], "node.exe: every byte of the upload arrived")
    peers = {one["peer"] for one in result["seen"]}
    checks.equal(peers, {server.address}, "node.exe: it sees its server as the peer")
    stage.asked_the_node("node.exe", server, before, FETCHES + 1)


def bundler(stage):
    checks = stage.checks
    before = len(stage.bench.node.games())
    folder = stage.paths["esbuild.exe"].parent
    big = os.urandom(4 << 20)
    (folder / "big.bin").write_bytes(big)
    port = real_programs.free_port()
    process = subprocess.Popen(
        stage.command("esbuild.exe", f"--serve={real_programs.PLAYER}:{port}", "--servedir=."),
        cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
    )  # fmt: skip
    status, content = real_programs.get_when_up(process, port, "/big.bin")
    _, errors = process.communicate(timeout=LONGEST_S)
    checks.that((status, content) == (200, big), "esbuild.exe: it serves every byte", errors.decode())
    checks.equal(process.returncode, 0, "esbuild.exe: exit code")
    checks.equal(stage.bench.node.games()[before:], [], "esbuild.exe: no request to the node")


def main():
    stage = Stage(relay_bench.parse_arguments())
    with stage.bench.running:
        media_tool(stage)
        runtime(stage)
        bundler(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
