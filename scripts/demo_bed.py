"""What the demo and the tests of switching run inside the test bed: nodes, the client program that
serves the tables, its watcher, and the sample game's server."""
import json
import pathlib
import re
import socket
import subprocess
import threading
import time

TREE = pathlib.Path(__file__).resolve().parent.parent
TIMEOUT_S = 120
POLL_S = 0.05


class Failed(Exception):
    """A failure that the demo reports without a Python stack trace."""


def wine(*arguments):
    return [str(TREE / "scripts" / "wine"), *map(str, arguments)]


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


def client_program(programs):
    """vyr_client of these programs, or else that of the 32-bit build: one serves games of both kinds."""
    own = programs / "vyr_client.exe"
    return own if own.exists() else TREE / "build/windows-x86/bin" / own.name


def read_json_lines(path):
    return [json.loads(line) for line in path.read_text(errors="replace").splitlines()]


def machine_lost():
    """The number of datagrams in this bed that were dropped because a buffer was full, which happens
    on a busy machine only."""
    lines = [line.split() for line in pathlib.Path("/proc/net/snmp").read_text().splitlines()]
    names, values = (line for line in lines if line[0] == "Udp:")
    return sum(int(value) for name, value in zip(names, values)
               if name in ("RcvbufErrors", "SndbufErrors"))


def page_data(path):
    """What the page of `vyr_client watch --report` shows, as it holds it."""
    text = path.read_text(encoding="utf-8")
    return json.loads(re.search(r'<script type="application/json" id="data">(.*?)</script>', text, re.S)[1])


def wait_until(condition, patience_s, what):
    end = time.monotonic() + patience_s
    while not (found := condition()):
        if time.monotonic() > end:
            raise Failed(f"{what}: not within {patience_s} s")
        time.sleep(POLL_S)
    return found


def first_event(process, name):
    line = process.stdout.readline()
    event = json.loads(line) if line else {}
    if event.get("event") != "listening":
        raise Failed(f"{name} does not listen: {event}")


class Node:
    """vyr_node at an address, with its events and its control port."""

    def __init__(self, program, name, address, control_port, *options):
        self.name, self.control = name, ("127.0.0.1", control_port)
        self.events = []
        self.process = subprocess.Popen(
            [program, "--listen", f"{address}:9000", "--control", f"127.0.0.1:{control_port}",
             *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        first_event(self.process, name)
        threading.Thread(target=self._collect, daemon=True).start()

    def _collect(self):
        for line in self.process.stdout:
            self.events.append(json.loads(line))

    def command(self, **command):
        with socket.create_connection(self.control, timeout=TIMEOUT_S) as control:
            control.sendall(json.dumps(command).encode() + b"\n")
            reply = json.loads(control.makefile().readline())
        if not reply["ok"]:
            raise Failed(f"{self.name} refuses {command}: {reply}")
        return reply

    def set(self, **behaviour):
        return self.command(command="set", **behaviour)

    def named(self, event, since=0):
        return [line for line in self.events[since:] if line["event"] == event]

    def flows(self, since=0):
        """The flows opened since that event, by number: where each began, what it has carried, and
        whether it is `open`. A program that ends right after closing its sockets leaves flows open."""
        ours = {event["flow"] for event in self.named("flow_opened", since)}
        told = [{**flow, "open": True} for flow in self.command(command="flows")["flows"]]
        told += [{**event, "open": False} for event in self.named("flow_closed", since)]
        return {flow["flow"]: flow for flow in told if flow["flow"] in ours}

    def end(self):
        self.process.terminate()
        self.process.wait(timeout=TIMEOUT_S)


class GameServer:
    """The sample game's server. It reports what it has seen when it ends."""

    def __init__(self, program, address, *options):
        self.process = subprocess.Popen(
            [program, "serve", address, "--until-eof", *options], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True)
        first_event(self.process, "the game's server")

    def end(self):
        said, _ = self.process.communicate(timeout=TIMEOUT_S)
        return json.loads(said.splitlines()[-1])


class Client:
    """vyr_client, which serves the tables for the duration of the block."""

    def __init__(self, programs, tables):
        self.process = subprocess.Popen(
            wine(client_program(programs), "serve", windows_path(tables), "--until-eof"),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def __enter__(self):
        for line in self.process.stdout:
            if "ready" in line:
                return self
        raise Failed("vyr_client did not become ready")

    def __exit__(self, *reason):
        self.process.communicate(timeout=TIMEOUT_S)
        if self.process.returncode != 0 and reason[0] is None:
            raise Failed(f"vyr_client ended with {self.process.returncode}")


class Watcher:
    """vyr_client, which takes out the library's reports and draws the page from them."""

    def __init__(self, programs, page):
        self.reports = []
        self.process = subprocess.Popen(
            wine(client_program(programs), "watch", "--follow", "--json", "--until-eof",
                 "--report", windows_path(page)),
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, encoding="utf-8",
            errors="replace")

    def __enter__(self):
        return self

    def __exit__(self, *reason):
        said, _ = self.process.communicate(timeout=TIMEOUT_S)
        if self.process.returncode != 0 and reason[0] is None:
            raise Failed(f"vyr_client, watching, ended with {self.process.returncode}")
        self.reports = [json.loads(line) for line in said.splitlines() if line.startswith("{")]

    def named(self, event):
        return [report for report in self.reports if report["event"] == event]
