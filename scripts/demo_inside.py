#!/usr/bin/env python3
"""The demo's story, told inside the test bed (demo.sh sets it up and calls this).

usage: demo_inside.py WINDOWS_BUILD_DIR NODE_PROGRAM

A native server at 198.51.100.10 holds a file, and two native nodes stand at .20 and .21. An
unmodified Windows program fetches the file: alone, then with the library under it through the
first node, through the second when the first has fallen silent, and directly when both have.
What each of them fetched is compared.
"""
import functools
import hashlib
import http.server
import json
import os
import pathlib
import socket
import subprocess
import sys
import threading

SERVER = ("198.51.100.10", 8080)
PROGRAM = "C:\\vyr\\ffmpeg.exe"  # where the test bed puts it
FILE_SIZE = 8 * 1024 * 1024
TIMEOUT_S = 120
TREE = pathlib.Path(__file__).resolve().parent.parent


def wine(*arguments):
    return [str(TREE / "scripts" / "wine"), *map(str, arguments)]


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def say(label, text):
    print(f"  {label:<22} {text}", flush=True)


def sha256(data):
    return hashlib.sha256(data).hexdigest()


class Server(http.server.SimpleHTTPRequestHandler):
    served = []  # (peer address, bytes) of each answer

    def do_GET(self):
        data = pathlib.Path(self.directory, "film.bin").read_bytes()
        self.send_response(200)
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)
        Server.served.append((self.client_address[0], len(data)))

    def log_message(self, *arguments):
        pass


def start_server(folder):
    server = http.server.ThreadingHTTPServer(SERVER, functools.partial(Server, directory=folder))
    threading.Thread(target=server.serve_forever, daemon=True).start()


def fetch(launcher, out):
    """Runs ffmpeg as the fetcher: the server's bytes as they are, into a file."""
    url = f"http://{SERVER[0]}:{SERVER[1]}/film.bin"
    command = wine(*launcher, PROGRAM, "-nostdin", "-loglevel", "error", "-f", "data", "-i", url,
                      "-map", "0", "-c", "copy", "-f", "data", "-y", windows_path(out))
    done = subprocess.run(command, timeout=TIMEOUT_S, stdin=subprocess.DEVNULL)
    if done.returncode != 0:
        sys.exit(f"demo: the program ended with {done.returncode}")
    return out.read_bytes()


def write_tables(build, path):
    """The client's own sample: it lists the program as a game, and works here as it stands."""
    with open(path, "wb") as file:
        subprocess.run(wine(build / "bin/vyr_client.exe", "sample"), stdout=file, check=True,
                       timeout=TIMEOUT_S)


class Client:
    """vyr_client, serving the tables for as long as the block runs."""

    def __init__(self, build, tables):
        command = wine(build / "bin/vyr_client.exe", "serve", windows_path(tables),
                          "--until-eof")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)

    def __enter__(self):
        for line in self.process.stdout:
            if "ready" in line:
                return self
        sys.exit("demo: vyr_client did not become ready")

    def __exit__(self, *reason):
        self.process.stdin.close()
        self.process.wait(timeout=TIMEOUT_S)


class Node:
    """vyr_node at an address of the sample's, with its events."""

    def __init__(self, program, name, address, control_port):
        self.name, self.control = name, ("127.0.0.1", control_port)
        self.events = []
        self.process = subprocess.Popen(
            [program, "--listen", f"{address}:9000", "--control", f"127.0.0.1:{control_port}"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        first = json.loads(self.process.stdout.readline())
        if first["event"] != "listening":
            sys.exit(f"demo: {name} does not listen: {first}")
        threading.Thread(target=self.collect, daemon=True).start()

    def collect(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line))

    def fall_silent(self):
        with socket.create_connection(self.control, timeout=TIMEOUT_S) as control:
            control.sendall(b'{"command":"set","on_request":"silent"}\n')
            reply = json.loads(control.makefile().readline())
        if not reply["ok"]:
            sys.exit(f"demo: {self.name} refuses to fall silent: {reply}")

    def asked_for(self):
        return [event["game"] for event in self.events if event["event"] == "request"]


def show_trace(trace):
    facts = [json.loads(line) for line in trace.read_text(errors="replace").splitlines()]
    said = [fact["debug_output"].removeprefix("[LspTrace]").strip()
            for fact in facts if "debug_output" in fact]
    for start in ("CheckCanHook", "WSPStartup end"):
        for line in said:
            if line.startswith(start):
                say("the library said", line)
                break
    for fact in facts:
        if "start" in fact:
            say("call table", f"{fact['replaced_entries']} of 30 entries replaced")
            break
    calls = [f"{fact['call']} {fact['count']}" for fact in facts
             if fact.get("through") == "library"]
    say("calls it saw", ", ".join(calls))


def show_log(log, words):
    """The first line with each of the words; a missing one means that the demo failed."""
    lines = log.read_bytes().decode("gbk", "replace").splitlines()
    say("log file", f"{log.name}, {len(lines)} lines")
    for word in words:
        found = [line for line in lines if word in line]
        if not found:
            sys.exit(f"demo: FAILED, the log has no line with '{word}'")
        print(f"    {found[0]}")


class Story:
    def __init__(self, build, node_program):
        self.drive_c = pathlib.Path(os.environ["VYR_WINEPREFIX"], "drive_c")
        if not (self.drive_c / "vyr/ffmpeg.exe").exists():
            print("demo: the third-party programs are not here; scripts/fetch_programs.sh gets them")
            sys.exit(77)
        if not node_program.exists():
            print(f"demo: no node at {node_program}; the posix preset builds it")
            sys.exit(77)
        self.build = build
        self.work = pathlib.Path(os.environ["VYR_BED_DIR"], "demo")
        self.work.mkdir()
        self.original = os.urandom(FILE_SIZE)
        (self.work / "film.bin").write_bytes(self.original)
        start_server(self.work)
        self.nodes = [Node(node_program, "node one", "198.51.100.20", 7101),
                      Node(node_program, "node two", "198.51.100.21", 7102)]

    def check(self, fetched):
        say("bytes", f"{len(fetched)}, sha256 {sha256(fetched)[:16]}…, from the server to "
            + Server.served[-1][0])
        if fetched != self.original:
            sys.exit("demo: FAILED, the bytes differ")

    def fetch_alone(self):
        print("An unmodified Windows program (ffmpeg) fetches a file from a native server.")
        self.check(fetch([], self.work / "alone.bin"))

    def fetch_as_game(self, title, number, words, trace=False):
        print(title)
        asked = [len(node.asked_for()) for node in self.nodes]
        known = set(self.drive_c.glob("vyr/log/*.log"))
        trace_file = self.work / f"trace{number}.jsonl"
        self.check(fetch([self.build / "bin/vyr_run.exe", "--trace", windows_path(trace_file)],
                         self.work / f"fetch{number}.bin"))
        if trace:
            show_trace(trace_file)
        for node, before in zip(self.nodes, asked):
            for game in node.asked_for()[before:]:
                say(node.name, f"was asked for {game}")
        show_log((set(self.drive_c.glob("vyr/log/*.log")) - known).pop(), words)


def main(build, node_program):
    story = Story(build, node_program)
    story.fetch_alone()
    tables = story.work / "games.toml"
    write_tables(build, tables)
    with Client(build, tables):
        story.fetch_as_game("The same program, listed as a game, with the library under it.", 1,
                            ["will accelerate", "is relayed", "TcpSession::StartNegotiation"],
                            trace=True)
        story.nodes[0].fall_silent()
        story.fetch_as_game("Node one falls silent.", 2,
                            ["OnNegotiationFailed", "ChangeAcclServer"])
        story.nodes[1].fall_silent()
        story.fetch_as_game("Node two falls silent too.", 3, ["ChangeAcclServer", "begin direct"])
    print("The bytes were the same every time. The program noticed nothing but a delay.")


if __name__ == "__main__":
    if len(sys.argv) != 3 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__.strip())
    main(pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2]).resolve())
