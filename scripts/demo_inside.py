#!/usr/bin/env python3
"""The demo itself, which runs inside the test bed. demo.sh sets up the bed and calls this. Uses 32-bit
or 64-bit programs, depending on the build.

usage: demo_inside.py WINDOWS_BUILD_DIR NATIVE_PROGRAMS_DIR [PAGE]

It has three parts. First, an unmodified Windows program fetches a file from a native server at
198.51.100.10: without the library, then with it through the first of two native nodes, through the
second one when the first is unreachable, and directly when both are. Second, the same program sends
a film as datagrams to a native peer. Third, the sample game plays while its node's link goes bad.
The page with the game's connections is written to PAGE.
"""
import datetime
import functools
import hashlib
import http.server
import json
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import threading

import demo_bed
import switch_run
from demo_bed import TIMEOUT_S, Failed, windows_path, wine

SERVER = ("198.51.100.10", 8080)
FILM_SERVER = ("198.51.100.10", 5004)
PROGRAM = "C:\\vyr\\ffmpeg.exe"  # its place in the test bed
GAME = "C:\\vyr\\vyr_game.exe"
FILE_SIZE = 8 * 1024 * 1024
TS_PACKET = 188
FILM_S = 3


def say(label, text):
    print(f"  {label:<22} {text}", flush=True)


def say_pings(server, icmp, who):
    say("its ping", f"{server['ping_ms']['p50']:.0f} ms by game traffic; {icmp['ping_ms']['p50']:.0f} ms by "
        f"ICMP, {icmp['received']} of {icmp['sent']} answered {who}")


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


class FilmPeer:
    """Receives datagrams for the duration of the block."""

    def __init__(self, address):
        self.datagrams, self.peers = [], set()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        self.socket.bind(address)

    def __enter__(self):
        threading.Thread(target=self._take, daemon=True).start()
        return self

    def _take(self):
        while True:
            data, peer = self.socket.recvfrom(65536)
            self.datagrams.append(data)
            self.peers.add(peer[0])

    def size(self):
        return sum(map(len, self.datagrams))

    def __exit__(self, *reason):
        pass


def run(command, **options):
    done = subprocess.run(command, timeout=TIMEOUT_S, stdin=subprocess.DEVNULL, **options)
    if done.returncode != 0:
        raise Failed(f"the program ended with {done.returncode}")


def fetch(launcher, out):
    """Runs ffmpeg to copy the server's bytes unchanged into a file."""
    url = f"http://{SERVER[0]}:{SERVER[1]}/film.bin"
    run(wine(*launcher, PROGRAM, "-nostdin", "-loglevel", "error", "-f", "data", "-i", url,
             "-map", "0", "-c", "copy", "-f", "data", "-y", windows_path(out)))
    return out.read_bytes()


def send_film(launcher, address, folder):
    """Runs ffmpeg to generate a film and send it in real time; it also writes what it sends to a file.
    A second of silence keeps ffmpeg running after the last frame: the relay is in the process that it
    serves, and does not wait for datagrams that are sent just before the process ends."""
    run(wine(*launcher, PROGRAM, "-nostdin", "-loglevel", "error", "-re", "-f", "lavfi",
             "-i", f"testsrc=size=320x240:rate=25:duration={FILM_S}", "-re", "-f", "lavfi",
             "-t", str(FILM_S + 1), "-i", "anullsrc", "-c:v", "mpeg2video", "-b:v", "1M", "-map", "0",
             "-f", "tee",
             f"[f=mpegts]udp\\://{address[0]}\\:{address[1]}?pkt_size=1316|[f=mpegts]film.ts",
             "-map", "1", "-f", "null", "-"),
        cwd=folder)
    return (folder / "film.ts").read_bytes()


def write_sample(programs, path):
    """Writes the client program's sample file, which lists the program as a game and works in the bed
    unchanged."""
    with open(path, "wb") as file:
        subprocess.run(wine(demo_bed.client_program(programs), "sample"), stdout=file, check=True,
                       timeout=TIMEOUT_S)


def show_trace(trace):
    facts = demo_bed.read_json_lines(trace)
    said = [fact["debug_output"].removeprefix("[LspTrace]").strip()
            for fact in facts if "debug_output" in fact]
    for start in ("CheckCanHook", "WSPStartup end"):
        for line in said:
            if line.startswith(start):
                say("library's trace", line)
                break
    for fact in facts:
        if "start" in fact:
            say("call table", f"{fact['replaced_entries']} of 30 entries replaced")
            break
    calls = [f"{fact['call']} {fact['count']}" for fact in facts
             if fact.get("through") == "library"]
    say("intercepted calls", ", ".join(calls))


def show_log(log, words):
    """Prints the first line that contains each of the texts. If one is missing, the demo has failed."""
    lines = log.read_bytes().decode("gbk", "replace").splitlines()
    say("log file", f"{log.name}, {len(lines)} lines")
    for word in words:
        found = [line for line in lines if word in line]
        if not found:
            raise Failed(f"the log has no line with '{word}'")
        print(f"    {found[0]}")


class Story:
    def __init__(self, build, native, page):
        self.drive_c = pathlib.Path(os.environ["VYR_WINEPREFIX"], "drive_c")
        self.is_x64 = (build / "bin/vyr_run64.exe").exists()
        if not (self.drive_c / "vyr" / ("x64" if self.is_x64 else ".") / "ffmpeg.exe").exists():
            print("demo: the third-party programs are not here; scripts/fetch_programs.sh "
                  f"{'--x64 ' * self.is_x64}gets them")
            sys.exit(77)
        needed = {native / "vyr_node": "posix", native / "vyr_game": "posix",
                  demo_bed.client_program(build / "bin"): "windows-x86"}
        for program, preset in needed.items():
            if not program.exists():
                print(f"demo: no {program}; the {preset} preset builds it")
                sys.exit(77)
        self.programs, self.native, self.page = build / "bin", native, page
        if self.is_x64:  # give it the name that the sample file lists
            (self.drive_c / "vyr/ffmpeg.exe").unlink(missing_ok=True)
            (self.drive_c / "vyr/x64/ffmpeg.exe").rename(self.drive_c / "vyr/ffmpeg.exe")
        self.work = pathlib.Path(os.environ["VYR_BED_DIR"], "demo")
        self.work.mkdir()
        self.original = os.urandom(FILE_SIZE)
        (self.work / "film.bin").write_bytes(self.original)
        start_server(self.work)

    def launcher(self, *options):
        return [self.programs / ("vyr_run64.exe" if self.is_x64 else "vyr_run.exe"), *options]

    # --- part one: streams ---

    def check(self, fetched):
        say("bytes", f"{len(fetched)}, sha256 {sha256(fetched)[:16]}…, from the server to "
            + Server.served[-1][0])
        if fetched != self.original:
            raise Failed("the bytes differ")

    def fetch_alone(self):
        kind = "64-bit" if self.is_x64 else "32-bit"
        print(f"An unmodified {kind} Windows program (ffmpeg) fetches a file from a native server.")
        self.check(fetch([], self.work / "alone.bin"))

    def fetch_as_game(self, nodes, title, number, words, trace=False):
        print(title)
        asked = [len(node.named("request")) for node in nodes]
        known = self.logs()
        trace_file = self.work / f"trace{number}.jsonl"
        self.check(fetch(self.launcher("--trace", windows_path(trace_file)),
                         self.work / f"fetch{number}.bin"))
        if trace:
            show_trace(trace_file)
        for node, before in zip(nodes, asked):
            for request in node.named("request")[before:]:
                say(node.name, f"was asked for {request['game']}")
        show_log((self.logs() - known).pop(), words)

    def logs(self):
        return set(self.drive_c.glob("vyr/log/*.log"))

    def streams(self, nodes):
        self.fetch_as_game(nodes, "The same program, listed as a game and with the library.",
                           1, ["will accelerate", "is relayed", "TcpSession::StartNegotiation"],
                           trace=True)
        nodes[0].set(on_request="silent")
        self.fetch_as_game(nodes, "Node one stops answering.", 2,
                           ["OnNegotiationFailed", "ChangeAcclServer"])
        nodes[1].set(on_request="silent")
        self.fetch_as_game(nodes, "Node two stops answering, too.", 3,
                           ["ChangeAcclServer", "begin direct"])
        print("The bytes were the same every time. The program noticed only a delay.\n")

    # --- part two: datagrams ---

    def film(self, nodes):
        print("It sends a film as datagrams (MPEG-TS). The nodes answer again.")
        for node in nodes:
            node.command(command="restore")
        folder = self.drive_c / "vyr/film"
        folder.mkdir()
        with FilmPeer(FILM_SERVER) as peer:
            sent = send_film(self.launcher(), FILM_SERVER, folder)
            demo_bed.wait_until(lambda: peer.size() >= len(sent), 5, "the film's last datagram")
        flow = list(nodes[0].flows().values())[-1]
        say("sent", f"{len(sent) // TS_PACKET} MPEG-TS packets, sha256 {sha256(sent)[:16]}…")
        say("node one", f"carried {flow['datagrams_to_server']} datagrams to {flow['game']}")
        got = b"".join(peer.datagrams)
        say("the peer", f"had {len(got) // TS_PACKET} packets in {len(peer.datagrams)} datagrams "
            f"from {', '.join(peer.peers)}, sha256 {sha256(got)[:16]}…")
        if got != sent or peer.peers != {"198.51.100.20"}:
            raise Failed("the packets differ from those that were sent, or are out of order")
        if flow["datagrams_to_server"] != len(peer.datagrams):
            raise Failed("not all of them came through the node")
        print("Every packet arrived as it was sent.\n")

    # --- part three: the link goes bad while the game plays on ---

    def play_alone(self):
        direct = switch_run.ways().direct
        print("A sample game plays for two seconds without the library. "
              f"Its way to the server and back takes {direct} ms.")
        server = demo_bed.GameServer(self.native / "vyr_game", switch_run.SERVER, "--delay-ms",
                                     str(direct))
        done = subprocess.run(wine(GAME, "play", switch_run.SERVER, "--rate", "30", "--seconds", "2",
                                   "--ping", "--json"), timeout=TIMEOUT_S, check=True,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        server.end()
        summary = json.loads(done.stdout.splitlines()[-1])
        say_pings(summary["servers"][0], summary["icmp"][0],
                  "by the server itself, past that delay")

    def finale(self):
        shutil.copy(self.programs / "vyr_game.exe", self.drive_c / "vyr")
        self.play_alone()
        print(f"It plays through node A. After {switch_run.HEALTHY_S} s, A's link loses 30 % each way.")
        logs = self.drive_c / "vyr/game_log"
        logs.mkdir()
        tables = self.work / "game.toml"
        tables.write_text(switch_run.game([GAME], "C:\\vyr\\game_log\\") + switch_run.ROUTES)
        server = demo_bed.GameServer(self.native / "vyr_game", switch_run.SERVER)
        nodes = switch_run.start_nodes(self.native / "vyr_node")
        with demo_bed.Client(self.programs, tables), \
                demo_bed.Watcher(self.programs, self.page) as watcher:
            game = wine(*self.launcher("--", GAME))
            lost_before = demo_bed.machine_lost()
            facts = switch_run.Run(nodes, game, logs).play(seed=1)
            machine_lost = demo_bed.machine_lost() - lost_before
        seen = server.end()["players"]
        for node in nodes:
            node.end()
        self.tell(facts, seen, watcher, machine_lost)

    def tell(self, facts, seen, watcher, machine_lost):
        game, summary = facts.game, facts.summary
        say("the game", f"sent {game['sent']} datagrams (UDP) and {summary['lobby']['said']} lobby messages (TCP)")
        say_pings(game, summary["icmp"][0], "by the library from its tables")
        began = datetime.datetime.fromtimestamp(facts.began)
        say("+ 0.00 s", f"the trouble begins, at {began:%H:%M:%S}")
        for name, words in (("noticed", "the library has noticed"),
                            ("judged", "probes have confirmed it"),
                            ("verified", "node B has passed its trial"),
                            ("arrived", "the first datagram has arrived over B")):
            if name in facts.moments:
                at, line = facts.moments[name]
                say(f"+{at:5.2f} s", words)
                print(f"    {line}")
        say("lost by the network", f"{facts.lost_up} of the game's datagrams to the server, "
            f"{facts.lost_down} from the server")
        say("lost by the library", f"{facts.library_lost_up} and {facts.library_lost_down}; "
            f"{game['duplicated']} duplicated, {game['reordered']} out of order")
        if machine_lost:
            say("lost by the machine", f"{machine_lost}, because it is too busy to carry them all")
        say("the game's port", f"{game['own_port_begin']} before, {game['own_port_end']} after; "
            f"every answer came from {switch_run.SERVER}")
        say("the server", f"saw {seen[0]['address']} last, {seen[0]['address_changes']} change of address")
        say("the client", f"received {len(watcher.reports)} reports, "
            f"{len(watcher.named('recovery_switch'))} of a change of node")
        say("the page", os.path.relpath(self.page, demo_bed.TREE))
        for flow in demo_bed.page_data(self.page)["flows"]:
            for stay in flow["stays"]:
                say("it says", f"{flow['type']} through {stay['node'].split(' 198')[0]}: {stay['worth']['words']}")
        if troubles := facts.troubles(machine_lost):
            raise Failed("; ".join(troubles))
        print("The game played on. It noticed only what the network lost.")


def main(build, native, page):
    story = Story(build, native, page)
    story.fetch_alone()
    sample = story.work / "games.toml"
    write_sample(story.programs, sample)
    nodes = [demo_bed.Node(native / "vyr_node", "node one", "198.51.100.20", 7101),
             demo_bed.Node(native / "vyr_node", "node two", "198.51.100.21", 7102)]
    with demo_bed.Client(story.programs, sample):
        story.streams(nodes)
        story.film(nodes)
    for node in nodes:
        node.end()
    story.finale()


if __name__ == "__main__":
    if not 3 <= len(sys.argv) <= 4 or sys.argv[1] in ("-h", "--help"):
        sys.exit(__doc__.strip())
    paths = [pathlib.Path(argument).resolve() for argument in sys.argv[1:]]
    try:
        main(*paths[:2], paths[2] if len(paths) == 3 else paths[0] / "demo.html")
    except Failed as failure:
        sys.exit(f"demo: FAILED, {failure}")
