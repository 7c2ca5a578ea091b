#!/usr/bin/env python3
"""The demo's story, told inside the test bed (demo.sh sets it up and calls this).

usage: demo_inside.py BUILD_DIR

A native server at 198.51.100.10 holds a file. An unmodified Windows program fetches it, alone
and then with the library under it, listed as a game; what both fetched is compared.
"""
import functools
import hashlib
import http.server
import json
import os
import pathlib
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


def show_trace(trace):
    facts = [json.loads(line) for line in trace.read_text(errors="replace").splitlines()]
    said = [fact["debug_output"].removeprefix("[LspTrace]").strip()
            for fact in facts if "debug_output" in fact]
    for start in ("CheckCanHook", "WSPStartup end"):
        for line in said:
            if line.startswith(start):
                say("the library said", line)
    for fact in facts:
        if "start" in fact:
            say("call table", f"{fact['replaced_entries']} of 30 entries replaced")
    calls = [f"{fact['call']} {fact['count']}" for fact in facts
             if fact.get("through") == "library"]
    say("calls it saw", ", ".join(calls))


def show_log(folder):
    logs = sorted(folder.glob("*.log"))
    if not logs:
        sys.exit("demo: the library wrote no log file")
    lines = logs[0].read_bytes().decode("gbk", "replace").splitlines()
    say("log file", f"{logs[0].name}, {len(lines)} lines")
    for word in ("Basic info", "will accelerate", "WSPConnect: ret"):
        for line in lines:
            if word in line:
                print(f"    {line}")
                break


def main(build):
    drive_c = pathlib.Path(os.environ["VYR_WINEPREFIX"], "drive_c")
    if not (drive_c / "vyr/ffmpeg.exe").exists():
        print("demo: the third-party programs are not here; scripts/fetch_programs.sh gets them")
        sys.exit(77)
    work = pathlib.Path(os.environ["VYR_BED_DIR"], "demo")
    work.mkdir()
    original = os.urandom(FILE_SIZE)
    (work / "film.bin").write_bytes(original)
    start_server(work)
    launcher = build / "bin/vyr_run.exe"

    print("An unmodified Windows program (ffmpeg) fetches a file from a native server.")
    alone = fetch([], work / "alone.bin")
    say("without the library", f"{len(alone)} bytes, sha256 {sha256(alone)[:16]}…")

    print("The same program, listed as a game, with the library under it.")
    tables = work / "games.toml"
    trace = work / "trace.jsonl"
    write_tables(build, tables)
    with Client(build, tables):
        under = fetch([launcher, "--trace",
                       windows_path(trace)], work / "under.bin")
    show_trace(trace)
    show_log(drive_c / "vyr/log")
    say("with the library", f"{len(under)} bytes, sha256 {sha256(under)[:16]}…")
    peers = {peer for peer, _ in Server.served}
    say("the server saw", f"{len(Server.served)} fetches from {', '.join(sorted(peers))}")

    if not original == alone == under:
        sys.exit("demo: FAILED, the bytes differ")
    print("The bytes are the same. The program noticed nothing.")


if __name__ == "__main__":
    if len(sys.argv) != 2 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__.strip())
    main(pathlib.Path(sys.argv[1]).resolve())
