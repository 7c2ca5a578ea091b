"""The work of each third-party program in the test of mended programs: its server, its arguments, and
all that can be seen of what it did."""

import hashlib
import json
import os
import select
import socket
import threading
import time

import real_programs
import support
from web_server import WebServer
from x64_programs import archive

SIZE = 100_000  # bytes each way
QUESTIONS = 10
PROBES = support.ROOT / "tests/windows/probes"
QUIET_S = 0.5


class Peers(set):
    """Who has been there, and when the first came, in seconds since 1970."""

    first_at = None

    def add(self, peer):
        self.first_at = self.first_at or time.time()
        super().add(peer)


class Streams:
    """A server of streams, each with a first line. "game first": it answers after the client's end.
    "server first": it ends its own side at once and reads on. "nothing back": it only reads."""

    def __init__(self, address):
        self.listener = socket.create_server((address, 0))
        self.name = f"{address}:{self.listener.getsockname()[1]}"
        self.peers, self.heard = Peers(), []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            connection, peer = self.listener.accept()
            self.peers.add(peer[0])
            threading.Thread(target=self._serve, args=(connection,), daemon=True).start()

    def _serve(self, connection):
        body = bytes(range(256)) * (SIZE // 256)
        first = ""
        with connection, connection.makefile("rb") as stream:
            try:
                first = stream.readline().decode("ascii", "replace").strip()
                if not first:
                    return  # a way that was tried and given up
                if first == "server first":
                    connection.sendall(body)
                    connection.shutdown(socket.SHUT_WR)
                read = stream.read()
                if first == "game first":
                    connection.sendall(body)
                end = "ended"
            except OSError as error:
                read, end = b"", type(error).__name__
            self.heard.append([first, len(read), hashlib.sha256(read).hexdigest(), end])


class Datagrams:
    """Keeps each datagram, and echoes it if asked to."""

    def __init__(self, address, echoes):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.socket.bind((address, 0))
        self.name = f"{address}:{self.socket.getsockname()[1]}"
        self.echoes = echoes
        self.peers, self.heard = Peers(), []
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        while True:
            data, peer = self.socket.recvfrom(65536)
            self.peers.add(peer[0])
            self.heard.append(data)
            if self.echoes:
                self.socket.sendto(data, peer)


class Web(WebServer):
    def __init__(self, address, body, content_type="application/octet-stream"):
        super().__init__({"": body}, at_once=20, address=address, content_type=content_type)
        self.name = self.address

        self.peers = Peers()
        self.heard = []  # its answers show in what the program does with them


class Work:
    """One run. It talks to its own server, and nothing that is seen of it names that server, so runs
    with different servers compare."""

    name = ""
    program = ""
    environment = {}
    output = None  # a file; without one the standard output
    exit_code = 0

    def __init__(self, address):
        self.server = self.serve(address)
        self.host, self.port = self.server.name.split(":")

    def serve(self, address):
        raise NotImplementedError

    def arguments(self):
        raise NotImplementedError

    def prepare(self, folder):
        pass

    def result(self, folder, said):
        """What the program has to show for its work."""
        if self.output is None:
            shown = said.replace("\r", "").encode()
        else:
            path = folder / self.output
            shown = path.read_bytes() if path.exists() else b""
        return shown.replace(self.server.name.encode(), b"SERVER")

    def heard(self):
        """What has reached the server, once nothing more comes."""
        before = None
        while before != (before := len(self.server.heard)):
            select.select([], [], [], QUIET_S)
        return sorted(self.server.heard)


class RuntimeHalfClose(Work):
    name, program = "node-half-close", "node.exe"
    output = "out.json"

    def serve(self, address):
        return Streams(address)

    def arguments(self):
        return [support.windows_path(PROBES / "half_close.js"), self.output, self.host, self.port, SIZE]


class RuntimeConnected(Work):
    name, program = "node-connected", "node.exe"
    output = "out.json"

    def serve(self, address):
        return Datagrams(address, echoes=True)

    def arguments(self):
        script = support.windows_path(PROBES / "connected.js")
        return [script, self.output, self.host, self.port, QUESTIONS]


class Ruby(Work):
    program = "ruby/bin.real/ruby.exe"
    script = ""

    @property
    def environment(self):
        library = real_programs.programs_folder() / "ruby/lib/ruby/2.2.0"
        folders = (library, library / "i386-mingw32")
        return {"RUBYLIB": ";".join(map(support.windows_path, folders))}

    def arguments(self):
        return ["--disable-gems", support.windows_path(PROBES / self.script), self.host, self.port]


class RubyHalfClose(Ruby):
    name, script = "ruby-half-close", "half_close.rb"

    def serve(self, address):
        return Streams(address)

    def arguments(self):
        return [*super().arguments(), SIZE]


class RubyLeaves(RubyHalfClose):
    """It ends while the system, or the library, still has what it sent."""

    name, script = "ruby-leaves", "leaves.rb"


class RubyConnected(Ruby):
    name, script = "ruby-connected", "connected.rb"

    def serve(self, address):
        return Datagrams(address, echoes=True)

    def arguments(self):
        return [*super().arguments(), QUESTIONS]


class GoRestore(Work):
    """A build runner finds the result of its build in an HTTP cache, and unpacks it."""

    name, program, output = "go-restore", "turbo.exe", "a/dist/big.bin"
    content = hashlib.shake_256(b"built").digest(SIZE)

    def serve(self, address):
        built = {"a/.turbo/turbo-build.log": b"built elsewhere\n", self.output: self.content}
        return Web(address, archive(built, "w:gz"))

    def arguments(self):
        return ["run", "build", "--remote-only"]

    @property
    def environment(self):
        return {"TURBO_API": f"http://{self.server.name}", "TURBO_TOKEN": "t", "TURBO_TEAM": "t",
                "TURBO_TELEMETRY_DISABLED": "1"}  # fmt: skip

    def prepare(self, folder):
        files = {
            "package.json": {"name": "w", "packageManager": "npm@9.0.0", "workspaces": ["a"]},
            "package-lock.json": {"name": "w", "lockfileVersion": 3, "packages": {}},
            "turbo.json": {"pipeline": {"build": {"outputs": ["dist/**"]}}},
            "a/package.json": {"name": "a", "version": "1.0.0", "scripts": {"build": "no"}},
        }
        (folder / "a").mkdir()
        for name, content in files.items():
            (folder / name).write_text(json.dumps(content))


class RustInfo(Work):
    """An uploader asks who it is. It ends with 1, as it has no project."""

    name, program, exit_code = "rust-info", "sentry-cli.exe", 1
    environment = {"SENTRY_DISABLE_UPDATE_CHECK": "1"}

    def serve(self, address):
        scopes = [f"scope:{number}" for number in range(500)]
        known = {"user": {"id": "1", "email": "a@b"}, "auth": {"scopes": scopes}}
        return Web(address, json.dumps(known).encode(), "application/json")

    def arguments(self):
        return ["--url", f"http://{self.server.name}", "--auth-token", "t", "info"]


class MediaFetch(Work):
    name, program, output = "media-fetch", "ffmpeg.exe", "out.pcm"

    def serve(self, address):
        return Web(address, real_programs.wave_file(seconds=2)[0])

    def arguments(self):
        return ["-v", "error", "-i", f"http://{self.server.name}/tone.wav", "-f", "s16le",
                "-c:a", "pcm_s16le", self.output]  # fmt: skip


class MediaConnected(Work):
    """A media tool sends a short film by a connected datagram socket, and ends."""

    name, program = "media-connected", "ffmpeg.exe"

    def serve(self, address):
        return Datagrams(address, echoes=False)

    def arguments(self):
        url = f"udp://{self.server.name}?pkt_size=1316&connect=1"
        return ["-v", "error", "-f", "lavfi", "-i", "testsrc=size=160x120:rate=25:duration=1",
                "-c:v", "mpeg2video", "-threads", "1", "-flags:v", "+bitexact",
                "-fflags", "+bitexact", "-f", "mpegts", url]  # fmt: skip

    def heard(self):
        super().heard()
        return [b"".join(self.server.heard)]  # in order


WORKS = (RuntimeHalfClose, RuntimeConnected, RubyHalfClose, RubyConnected, RubyLeaves, GoRestore,
         RustInfo, MediaFetch, MediaConnected)  # fmt: skip
