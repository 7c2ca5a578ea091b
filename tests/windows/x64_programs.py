"""Unmodified 64-bit programs, each with its own way of using sockets. The result of their work is the
same, byte for byte, without the library and as a game whose traffic goes through a node.

  a media tool (C)          waits in select, non-blocking connect
  a JavaScript runtime (C)  one completion port: ConnectEx, overlapped calls, overlapped datagrams
  a schema tool (Go)        looks up all functions itself, ConnectEx on a completion port
  a build runner (Rust)     asks the driver for readiness, by completion port; plain calls
"""

import io
import json
import os
import struct
import subprocess
import tarfile

import real_programs
import relay_bench
import support
from conversation import wait_until
from web_server import WebServer

LONGEST_S = 120
FETCHES, DATAGRAMS = 20, 40
TABLES = relay_bench.GAMES.replace("['TCP']", "['TCP', 'UDP']")


def archive(files, mode="w"):
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode=mode, format=tarfile.USTAR_FORMAT) as tar:
        for name, content in files.items():
            entry = tarfile.TarInfo(name)
            entry.size, entry.mode = len(content), 0o644
            tar.addfile(entry, io.BytesIO(content))
    return packed.getvalue()


def stored_zstandard(content):
    """A frame of uncompressed blocks."""
    frame = b"\x28\xb5\x2f\xfd\xa0" + struct.pack("<I", len(content))
    pieces = [content[at : at + (1 << 17)] for at in range(0, len(content), 1 << 17)]
    for number, piece in enumerate(pieces, 1):
        frame += struct.pack("<I", len(piece) << 3 | (number == len(pieces)))[:3] + piece
    return frame


class Work:
    """One run of a program: the files that it needs, its arguments, and the bytes that it produces."""

    program = ""

    def prepare(self, folder):
        pass

    def result(self, folder):
        return (folder / self.out).read_bytes() if (folder / self.out).exists() else None


class Fetch(Work):
    name, program, out = "media tool", "ffmpeg.exe", "out.pcm"

    def __init__(self):
        body, self.wanted = real_programs.wave_file(seconds=5)
        self.server = WebServer({"": body}, b"{}")
        self.arguments = ["-v", "error", "-i", f"http://{self.server.address}/tone.wav",
                          "-f", "s16le", "-c:a", "pcm_s16le", self.out]  # fmt: skip


class Fetches(Work):
    name, program, out = "JavaScript runtime", "node.exe", "out.json"

    def __init__(self):
        self.server = WebServer({"": os.urandom(1 << 18)}, b"{}")
        script = support.windows_path(support.ROOT / "tests/windows/probes/fetcher.js")
        self.arguments = [script, self.out, f"http://{self.server.address}", FETCHES, 1 << 18]
        self.wanted = None

    def result(self, folder):
        """Everything except the upload, which is random."""
        said = super().result(folder)
        return said and sorted(map(str, json.loads(said)["seen"]))


class Datagrams(Work):
    name, program, out = "JavaScript runtime's datagrams", "node.exe", "out.json"

    def __init__(self):
        self.server = support.EchoServer(relay_bench.SERVER)
        script = support.windows_path(support.ROOT / "tests/windows/probes/datagrams.js")
        self.arguments = [script, self.out, self.server.address, self.server.port, DATAGRAMS]
        texts = [f"datagram {number} " + "x" * (number * 10) for number in range(DATAGRAMS)]
        source = f"{self.server.address}:{self.server.port}"
        self.wanted = json.dumps({"seen": sorted(texts), "sources": [source]},
                                 separators=(",", ":")).encode()  # fmt: skip


class Export(Work):
    name, program, out = "schema tool", "buf.exe", "out/big.proto"

    def __init__(self):
        fields = "".join(f"  // {os.urandom(900).hex()}\n  int32 f{n} = {n};\n" for n in range(1, 500))
        self.wanted = f'syntax = "proto3";\npackage big;\nmessage Big {{\n{fields}}}\n'.encode()
        self.server = WebServer({"": archive({"big.proto": self.wanted}, "w:gz")}, b"{}")
        self.arguments = ["export", f"http://{self.server.address}/big.tar.gz", "-o", "out"]


class Restore(Work):
    """Finds the result of its build in an HTTP cache, and unpacks it."""

    name, program, out = "build runner", "turbo.exe", "a/dist/big.bin"

    def __init__(self):
        self.wanted = os.urandom(1 << 20)
        built = {"a/.turbo/turbo-build.log": b"built elsewhere\n", self.out: self.wanted}
        self.server = WebServer({"": stored_zstandard(archive(built))}, b"{}")
        self.arguments = ["run", "build", f"--api=http://{self.server.address}", "--token=t",
                          "--team=team_t"]  # fmt: skip

    def prepare(self, folder):
        files = {
            "package.json": {"name": "w", "packageManager": "npm@9.0.0", "workspaces": ["a"]},
            "turbo.json": {"pipeline": {"build": {"outputs": ["dist/**"]}}},
            "a/package.json": {"name": "a", "version": "1.0.0", "scripts": {"build": "no"}},
        }
        (folder / "a").mkdir()
        for name, content in files.items():
            (folder / name).write_text(json.dumps(content))


class Stage(support.Stage):
    """Each program has two folders: it runs without the library in one, and as a game in the other."""

    def __init__(self, arguments):
        super().__init__(arguments, arguments.node)
        self.programs = real_programs.programs_folder(arguments.kind)
        self.works = [Fetch(), Fetches(), Datagrams(), Export(), Restore()]
        self.games = [self.place(work) for work in self.works]
        games = [folder / work.program for folder, work in zip(self.games, self.works)]
        self.bench = relay_bench.Bench(arguments, self.runner, games, 0, TABLES)

    def place(self, work):
        folder = self.runner.stage(self.programs / work.program, work.program)
        work.prepare(folder)
        return folder

    def run(self, work, folder, what, *launcher):
        words = [support.WINE, *launcher, support.windows_path(folder / work.program), *work.arguments]
        done = subprocess.run(
            [str(word) for word in words], cwd=folder, stdin=subprocess.DEVNULL, capture_output=True,
            timeout=LONGEST_S, check=False, env={**os.environ, "TURBO_TELEMETRY_DISABLED": "1"},
        )  # fmt: skip
        said = (done.stdout + done.stderr).decode("utf-8", "replace")
        self.checks.equal(done.returncode, 0, f"{work.name}, {what}: exit code\n{said[-2000:]}")
        return work.result(folder)

    def check(self, work, folder):
        checks = self.checks
        alone = self.run(work, self.place(work), "alone")
        checks.that(alone and alone == (work.wanted or alone), f"{work.name} alone: it finishes its work")
        before = len(self.bench.node.games())
        checks.equal(before, self.known, f"{work.name} alone: no request to the node")
        getattr(work.server, "peers", set()).clear()
        game = self.run(work, folder, "as a game", self.runner.launcher, "--")
        checks.that(game == alone, f"{work.name}: the same bytes with the library")
        asked = wait_until(lambda: self.bench.node.games()[before:])
        self.known = len(self.bench.node.games())
        self.carried(work, asked)

    def carried(self, work, asked):
        checks = self.checks
        if isinstance(work, Datagrams):
            flows = self.bench.node.command(command="flows")["flows"] + self.bench.node.named("flow_closed")
            server = f"{work.server.address}:{work.server.port}"
            carried = [flow["datagrams_to_client"] for flow in flows if flow["game"] == server]
            checks.that(sum(carried) >= DATAGRAMS, f"{work.name}: the node carried them", str(flows))
            return
        checks.equal(set(asked), {work.server.address}, f"{work.name}: the servers requested from the node")
        checks.equal(work.server.peers, {relay_bench.NODE}, f"{work.name}: the server saw only the node")
        print(f"{work.name}: {len(asked)} connections through the node")

    def main(self):
        self.known = 0
        with self.bench.running:
            for work, folder in zip(self.works, self.games):
                self.check(work, folder)
        self.checks.end()


if __name__ == "__main__":
    Stage(relay_bench.parse_arguments()).main()
