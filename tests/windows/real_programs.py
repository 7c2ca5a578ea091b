"""Unmodified third-party programs do real work, and the bytes that arrive are the same in each way of
running them. A media tool (select loops, imports by name) fetches over HTTP and sends a transport
stream over UDP. A bundler, whose runtime looks up all functions itself, serves HTTP."""

import hashlib
import http.client
import http.server
import math
import os
import pathlib
import select
import socket
import struct
import subprocess
import threading
import time

import support

LONGEST_S = 90
PLAYER = "198.51.100.1" if os.environ.get("VYR_TESTBED") else "127.0.0.1"
# A process of this name is served without a configuration, and writes a log file.
SERVED_NAME = "SpeedTester.exe"


def programs_folder(kind="x86"):
    script = [support.ROOT / "scripts" / "fetch_programs.sh"] + (["--x64"] if kind == "x64" else [])
    if subprocess.run([*script, "--check"], check=False).returncode != 0:
        words = " ".join(["scripts/fetch_programs.sh", *script[1:]])
        support.skip(f"the third-party programs are not there; {words} gets them")
    path = subprocess.run([*script, "--path"], capture_output=True, text=True, check=True)
    return pathlib.Path(path.stdout.strip())


def wave_file(seconds=20, rate=44100):
    """A tone, as a WAV file and as raw samples."""
    samples = b"".join(
        struct.pack("<hh", int(12000 * math.sin(i / 17)), int(9000 * math.sin(i / 23)))
        for i in range(seconds * rate)
    )
    header = struct.pack(
        "<4sI4s4sIHHIIHH4sI", b"RIFF", 36 + len(samples), b"WAVE", b"fmt ", 16, 1, 2, rate,
        rate * 4, 4, 16, b"data", len(samples),
    )  # fmt: skip
    return header + samples, samples


class WebServer:
    """Serves one body at any path."""

    def __init__(self, body):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Type", "audio/wav")
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer((support.SERVER, 0), Handler)
        self.url = f"http://{support.SERVER}:{self.server.server_port}/tone.wav"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()


class Program:
    """A third-party program that can be run in each way."""

    def __init__(self, runner, path):
        self.runner = runner
        self.path = path

    def command(self, way, arguments):
        """The command line, and the path of the trace."""
        name = SERVED_NAME if way == "served" else self.path.name
        folder = pathlib.Path(self.runner.stage(self.path, name))
        program = support.windows_path(folder / name)
        trace = folder / "trace.jsonl"
        if way == "none":
            return [support.WINE, program, *arguments], folder, trace
        options = ["--bare"] if way == "bare" else []
        launcher = [self.runner.launcher, "--trace", support.windows_path(trace)]
        return [support.WINE, *launcher, *options, "--", program, *arguments], folder, trace

    def run(self, way, arguments):
        command, folder, trace = self.command(way, arguments)
        done = subprocess.run(
            [str(word) for word in command], cwd=folder, stdin=subprocess.DEVNULL,
            capture_output=True, timeout=LONGEST_S, check=False,
        )  # fmt: skip
        return done, support.read_trace(trace), folder


def calls_seen(trace):
    return {line["call"]: line["count"] for line in trace if line.get("through") == "library"}


def check_trace(checks, what, way, trace, wanted_calls):
    seen = calls_seen(trace)
    if way == "served":
        for call in wanted_calls:
            checks.that(call in seen, f"{what}: {call} goes through the library", str(seen))
        print(f"{what}: calls through the library: {seen}")
    else:
        checks.equal(seen, {}, f"{what}, {way}: nothing goes through the library")


def fetch_over_http(checks, ffmpeg):
    body, samples = wave_file()
    server = WebServer(body)
    for way in support.WAYS:
        done, trace, folder = ffmpeg.run(
            way,
            ["-v", "error", "-i", server.url, "-f", "s16le", "-c:a", "pcm_s16le", "out.pcm"],
        )
        checks.equal(done.returncode, 0, f"fetch, {way}: exit code")
        out = folder / "out.pcm"
        got = out.read_bytes() if out.exists() else b""
        checks.that(got == samples, f"fetch, {way}: every sample arrived", done.stderr.decode())
        check_trace(checks, "fetch", way, trace, ["WSPSocket", "WSPConnect", "WSPRecv", "WSPSend"])


def receive_until_quiet(receiver, process_ended):
    data = bytearray()
    while True:
        readable, _, _ = select.select([receiver], [], [], 0.3)
        if readable:
            data += receiver.recv(65536)
        elif process_ended():
            return bytes(data)


def stream_over_udp(checks, ffmpeg):
    received = {}
    for way in support.WAYS:
        receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        receiver.bind((support.SERVER, 0))
        url = f"udp://{support.SERVER}:{receiver.getsockname()[1]}?pkt_size=1316"
        result = []
        thread = threading.Thread(
            target=lambda: result.append(
                ffmpeg.run(
                    way,
                    ["-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25:duration=2",
                     "-c:v", "mpeg2video", "-threads", "1", "-flags:v", "+bitexact",
                     "-fflags", "+bitexact", "-f", "mpegts", url],
                )
            )
        )  # fmt: skip
        thread.start()
        received[way] = receive_until_quiet(receiver, lambda: not thread.is_alive())
        thread.join()
        done, trace, _ = result[0]
        checks.equal(done.returncode, 0, f"stream, {way}: exit code")
        check_trace(checks, "stream", way, trace, ["WSPSocket", "WSPSendTo"])
        receiver.close()
    alone = received["none"]
    print(f"stream: {len(alone)} bytes, sha256 {hashlib.sha256(alone).hexdigest()[:16]}")
    checks.that(len(alone) > 50_000 and len(alone) % 188 == 0, "stream: whole packets", str(len(alone)))
    for way in support.WAYS[1:]:
        checks.that(received[way] == alone, f"stream, {way}: the same bytes as alone",
                    f"{len(received[way])} and {len(alone)} bytes")  # fmt: skip


def get(port, path):
    connection = http.client.HTTPConnection(PLAYER, port, timeout=10)
    connection.request("GET", path)
    response = connection.getresponse()
    return response.status, response.read()


def get_when_up(process, port, path):
    deadline = time.monotonic() + LONGEST_S
    while time.monotonic() < deadline and process.poll() is None:
        try:
            return get(port, path)
        except OSError:
            time.sleep(0.05)  # not listening yet; the deadline limits the wait
    return None, b""


def free_port():
    with socket.create_server((PLAYER, 0)) as listener:
        return listener.getsockname()[1]


def serve_http(checks, esbuild):
    answers = {}
    for way in support.WAYS:
        port = free_port()
        command, folder, trace = esbuild.command(
            way, ["main.js", "--bundle", "--outdir=www", f"--serve={PLAYER}:{port}", "--servedir=."]
        )
        (folder / "main.js").write_text('import {square} from "./part.js";\nconsole.log(square(7));\n')
        (folder / "part.js").write_text("export const square = x => x * x;\n")
        (folder / "big.txt").write_bytes(b"0123456789abcdef" * 65536)
        process = subprocess.Popen(
            [str(word) for word in command], cwd=folder, stdin=subprocess.PIPE,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
        )  # fmt: skip
        answers[way] = [get_when_up(process, port, "/www/main.js")]
        if answers[way][0][0] is not None:
            answers[way] += [get(port, path) for path in ("/big.txt", "/part.js", "/missing")]
        # It ends when its input ends.
        _, errors = process.communicate(timeout=LONGEST_S)
        checks.equal(process.returncode, 0, f"serve, {way}: exit code")
        checks.that(len(answers[way]) == 4, f"serve, {way}: it answers", errors.decode("utf-8", "replace"))
        check_trace(checks, "serve", way, support.read_trace(trace),
                    ["WSPSocket", "WSPBind", "WSPRecv", "WSPSend", "WSPIoctl"])  # fmt: skip
    alone = answers["none"]
    checks.that(b"7" in alone[0][1] and alone[0][0] == 200, "serve: the bundle", str(alone[0]))
    checks.equal(len(alone[1][1]) if len(alone) > 1 else 0, 1 << 20, "serve: a megabyte")
    for way in support.WAYS[1:]:
        checks.that(answers[way] == alone, f"serve, {way}: the same answers as alone")


def main():
    arguments = support.parse_arguments()
    folder = programs_folder(arguments.kind)
    checks = support.Checks()
    runner = support.Runner(arguments)
    ffmpeg = Program(runner, folder / "ffmpeg.exe")
    esbuild = Program(runner, folder / "esbuild.exe")
    fetch_over_http(checks, ffmpeg)
    stream_over_udp(checks, ffmpeg)
    serve_http(checks, esbuild)
    checks.end()


if __name__ == "__main__":
    main()
