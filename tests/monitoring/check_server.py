#!/usr/bin/env python3
"""Who may ask, how many, and that no reader holds the program up.

usage: check_server.py VYR_CLIENT VYR_NODE
"""
import contextlib
import json
import socket
import subprocess
import sys
import threading
import time

import served
from served import Checks, Client, Node

CONNECTIONS, STREAMS = 64, 16  # docs/monitoring.md
REQUEST_S = 10
FLOOD = 20_000  # reports
OWN = ("127.0.0.1", "127.0.0.1:1", "localhost", "LocalHost:99", "[::1]:80", "198.51.100.7:9100")
FOREIGN = ("evil.example", "evil.example:80", "127.0.0.1.evil.example", "localhost.evil.example", "", "[::1",
           "a:b:c", "127.0.0.1@evil.example", None)
PAGES = {"/": "text/html; charset=utf-8", "/metrics": "text/plain; version=0.0.4; charset=utf-8",
         "/health": "application/json"}


def check_who_may_ask(checks, at):
    for host in OWN:
        checks.that(at.status("/health", Host=host) == 200, f"Host {host!r} may ask")
    for host in FOREIGN:
        for path in (*PAGES, "/events", "/nothing"):
            checks.that(at.status(path, Host=host) == 403, f"Host {host!r} may not ask for {path}")
    _, headers, _ = at.ask("/metrics", Origin="http://evil.example")
    checks.that(not [name for name in headers if name.lower().startswith("access-control")],
                "no other origin may read", headers)
    policy = headers["Content-Security-Policy"]
    checks.that("default-src 'none'" in policy and "connect-src 'self'" in policy and "http" not in policy,
                "a page reaches its own program only", policy)
    checks.that(headers["Cross-Origin-Resource-Policy"] == "same-origin" and headers["Cache-Control"] == "no-store",
                "what is served is not kept and not embedded", headers)


def raw(at, request):
    """The first line of the answer to these bytes."""
    with socket.create_connection((at.address, at.port), timeout=served.TIMEOUT_S) as connection:
        with contextlib.suppress(OSError):
            connection.sendall(request)
            return connection.makefile("rb").readline().decode().strip()
    return ""


def check_requests(checks, at):
    for path, kind in PAGES.items():
        status, headers, body = at.ask(path)
        checks.that((status, headers["Content-Type"]) == (200, kind), f"{path} is there", (status, headers))
        status, bare, nothing = at.ask(path, "HEAD")
        checks.that(status == 200 and nothing == "" and int(bare["Content-Length"]) > 0, f"HEAD of {path}", bare)
        checks.that(at.status(path + "?x=1") == 200, f"{path} with a query")
    for path in ("/nothing", "/metrics/", "//", "/../metrics"):
        checks.that(at.status(path) == 404, f"there is no {path}")
    for method in ("POST", "PUT", "DELETE", "OPTIONS", "CONNECT"):
        status, headers, _ = at.ask("/metrics", method)
        checks.that(status == 405 and headers["Allow"] == "GET, HEAD", f"no {method}", status)
    host = f"Host: {at.at}\r\n".encode()
    for request, status in ((b"GET http://evil.example/metrics HTTP/1.1\r\n" + host + b"\r\n", 400),
                            (b"GET /metrics HTTP/1.1\r\n" + host + host + b"\r\n", 403),
                            (b"GET /metrics HTTP/1.0\r\n\r\n", 403),
                            (b"GET /metrics HTTP/1.1\r\n" + host + b"Content-Length: 5\r\n\r\nhello", 413),
                            (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\r\n\r\n", 400),
                            (b"GET /metrics HTTP/1.1\r\n" + host + b"X: " + 9000 * b"x" + b"\r\n\r\n", 431)):
        answer = raw(at, request)
        checks.that(f" {status} " in answer, f"{request[:50]!r} is answered with {status}", answer)


def stream(at):
    """A reader of events that has read nothing yet."""
    reader = socket.create_connection((at.address, at.port), timeout=served.TIMEOUT_S)
    reader.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    reader.sendall(f"GET /events HTTP/1.1\r\nHost: {at.at}\r\n\r\n".encode())
    return reader


def is_closed(connection):
    connection.settimeout(served.TIMEOUT_S)
    with contextlib.suppress(ConnectionError):
        return connection.recv(1) == b""
    return True


def check_bounds(checks, at):
    with contextlib.ExitStack() as held:
        readers = [held.enter_context(stream(at)) for _ in range(STREAMS)]
        for reader in readers:
            checks.that(reader.recv(12) == b"HTTP/1.1 200", "a reader of events is served")
        checks.that(at.status("/events") == 503, "one more is refused")
        checks.that(at.status("/health") == 200, "others are served")
        idle = [held.enter_context(socket.create_connection((at.address, at.port)))
                for _ in range(CONNECTIONS - STREAMS)]
        begin = time.monotonic()
        more = held.enter_context(socket.create_connection((at.address, at.port)))
        checks.that(is_closed(more), "one connection too many is closed")
        checks.that(all(map(is_closed, idle)), "those that ask nothing are closed as well")
        took = time.monotonic() - begin
        checks.that(REQUEST_S - 2 < took < REQUEST_S + 10, "after the time for a request", f"{took:.1f} s")
        checks.that(at.status("/health") == 200, "and there is room again")
    checks.that(served.wait_until(lambda: at.status("/metrics") == 200), "readers that are gone leave room")


def check_slow_readers(checks, client):
    """With as many readers as there may be, none of which ever reads, and those who ask again and again, the
    reports pass through as if they were not there."""
    at, run = client.served, served.sample_run.many_flows(200)
    with contextlib.ExitStack() as held:
        for _ in range(STREAMS):
            held.enter_context(stream(at))
        begin, count = time.monotonic(), 0
        while count < FLOOD:
            client.feed(run)
            count += len(run)
        checks.that(served.wait_until(lambda: len(client.lines) == count), "every report is printed",
                    (len(client.lines), count))
        printed = time.monotonic() - begin
        checks.that(client.has(count), "and shown", client.served.health())
        print(f"{count} reports: printed in {printed:.1f} s, shown after {time.monotonic() - begin:.1f} s")
        status, health = at.health()
        checks.that(status == 200 and health["status"] == "ok", "all is well meanwhile", health)
        checks.that(at.metrics().value("vyr_reports_left_out_total") == 0, "nothing is left out")


def check_events(checks, client):
    """Events have rising numbers, each is the whole document, and a slow reader skips some."""
    with stream(client.served) as reader:
        lines = reader.makefile("r", encoding="utf-8")
        while lines.readline().strip():
            pass
        number, flows = 0, -1
        for round_ in range(3):
            client.feed(served.sample_run.one_flow("n", number=9000 + round_, port=9000 + round_))
            while True:
                line = lines.readline()
                if line.startswith("id: "):
                    checks.that(int(line[4:]) > number, "numbers rise", line)
                    number = int(line[4:])
                elif line.startswith("data: "):
                    document = json.loads(line[6:])
                    if any(flow["game"].endswith(f":{9000 + round_}") for flow in document["flows"]):
                        break
            checks.that(len(document["flows"]) > flows, "the document grows", len(document["flows"]))
            flows = len(document["flows"])


class Regions(Client):
    """A watch of this machine's reports."""

    def __init__(self, program):
        served.Program.__init__(self, program, "watch", "--serve", "127.0.0.1:0")


def check_hindered(checks, client):
    with Regions(client) as program:
        found = served.wait_until(lambda: program.served.health()[1]["status"] == "hindered")
        status, health = program.served.health()
        checks.that(found and status == 503 and "nobody serves" in health["trouble"], "without tables there are no reports",
                    health)
        checks.that(program.served.metrics().value("vyr_drain_hindered") == 1, "the metrics say so")


class Mute(Client):
    """One whose output nobody reads."""

    def _read(self):
        pass


def overfeed(program):
    with contextlib.suppress(OSError):  # it ends before it has taken them
        program.feed(served.sample_run.many_flows(2000))


def check_stuck(checks, client):
    """A watch whose output is full waits, as it must; whoever asks learns so."""
    with Mute(client) as program:
        threading.Thread(target=overfeed, args=(program,), daemon=True).start()
        # With a first report in it: one that the machine keeps waiting as it begins says so, too.
        found = served.wait_until(lambda: program.served.metrics().sum("vyr_reports_total") > 0
                                  and program.served.health()[0] == 503)  # fmt: skip
        checks.that(found and program.served.health()[1]["status"] == "stuck", "a watch that waits says so",
                    program.served.health())
        checks.that(program.served.status("/") == 200 and program.served.metrics().sum("vyr_reports_total") > 0,
                    "and still shows what it has")


def refused(*command):
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, timeout=served.TIMEOUT_S,
                          stdin=subprocess.DEVNULL)
    return done.returncode, done.stderr + done.stdout


def check_addresses(checks, client, node):
    watch = (client, "watch", "--from", "-", "--serve")
    listen = (node, "--listen", "127.0.0.1:0", "--metrics")
    for command in (watch, listen):
        for at, words in (("0.0.0.0:0", "--allow-remote"), ("198.51.100.1:0", "--allow-remote"),
                          ("127.0.0.1", "is not ADDRESS:PORT"), ("localhost:80", "is not ADDRESS:PORT"),
                          ("127.0.0.1:99999", "is not ADDRESS:PORT"), ("127.0.0.1:x", "is not ADDRESS:PORT")):
            code, said = refused(*command, at)
            checks.that(code == 2 and words in said, f"{command[0].split('/')[-1]} does not serve at {at}", (code, said))
    with socket.create_server(("127.0.0.1", 0)) as taken:
        for command in (watch, listen):
            code, said = refused(*command, f"127.0.0.1:{taken.getsockname()[1]}")
            checks.that(code == 1 and "the port is taken" in said, "a taken port is named", (code, said))
    with Remote(client, "watch", "--from", "-", "--serve", "0.0.0.0:0", "--allow-remote",
                "--allow-host", "Games.example", feed=True) as program:
        checks.that(program.served.status("/health", Host="games.example:9100") == 200, "an allowed name may ask")
        checks.that(program.served.status("/health", Host="evil.example") == 403, "another may not")


class Remote(Client):
    def __init__(self, *command, **options):
        served.Program.__init__(self, *command, **options)

    def where(self):
        return super().where().replace("0.0.0.0", "127.0.0.1")


def main():
    client, node = sys.argv[1:3]
    checks = Checks()
    with Client(client) as program:
        check_who_may_ask(checks, program.served)
        check_requests(checks, program.served)
        check_events(checks, program)
        check_bounds(checks, program.served)
        checks.that(program.end() == 0, "it ends when told")
    with Client(client) as program:
        check_slow_readers(checks, program)
        checks.that(program.end() == 0, "it ends when told, with readers that do not read")
    check_hindered(checks, client)
    check_stuck(checks, client)
    with Node(node) as program:
        checks.that(program.served.status("/metrics", Host="evil.example") == 403, "a node does not answer either")
        checks.that(program.served.status("/") == 404 and program.served.status("/events") == 404,
                    "a node has no page")
    check_addresses(checks, client, node)
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
