#!/usr/bin/env python3
"""The node's metrics against what clients of it did.

usage: check_node.py VYR_NODE
"""
import contextlib
import json
import socket
import struct
import sys
import threading

import served
from served import Checks, Node

MAGIC, PROBE_MAGIC = 0x78DB3964, 0x253ABD8F
DATA, END, PROBE = 0, 4, 8  # flags
STREAM = 100_000  # bytes


def endpoint(text):
    address, port = text.rsplit(":", 1)
    return address, int(port)


def request(server, number=1):
    """A request of version 3 for that server, as docs/wire.md has it."""
    guid = struct.pack(">IHH8s", number, 1, 2, bytes(8))
    body = struct.pack(">IBQI4sH", 0, 0, 10001, 7, socket.inet_aton(server[0]), server[1]) + guid
    return struct.pack(">IHHH", MAGIC, 73, 3, 0) + body + bytes(12) + struct.pack(">IQ", 42, 7)


class Echo:
    """A game server for streams and datagrams on one port."""

    def __init__(self):
        self.stream = socket.create_server(("127.0.0.1", 0))
        self.address = self.stream.getsockname()
        self.datagram = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.datagram.bind(self.address)
        for run in (self._streams, self._datagrams):
            threading.Thread(target=run, daemon=True).start()

    def _streams(self):
        while True:
            connection, _ = self.stream.accept()
            with connection, contextlib.suppress(OSError):
                while data := connection.recv(65536):
                    connection.sendall(data)

    def _datagrams(self):
        while True:
            self.datagram.sendto(*self.datagram.recvfrom(65536))


def connect(node, server):
    connection = socket.create_connection(endpoint(node.listening["address"]), timeout=served.TIMEOUT_S)
    connection.sendall(request(server))
    return connection


def result_of(connection):
    answer = connection.recv(41)
    return answer[10] if len(answer) == 41 else None


def control(node, **command):
    with socket.create_connection(endpoint(node.listening["control"]), timeout=served.TIMEOUT_S) as port:
        port.sendall(json.dumps(command).encode() + b"\n")
        assert json.loads(port.makefile().readline())["ok"], command


class Flow:
    """A flow of datagrams."""

    def __init__(self, node, server, number):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.settimeout(served.TIMEOUT_S)
        self.server, self.seq = server, 0
        self.socket.sendto(request(server, number), endpoint(node.listening["address"]))
        answer = self.socket.recv(100)
        self.result, self.token = answer[10], answer[11:15]
        self.data = endpoint(node.listening["data"])

    def send(self, flags, payload=b""):
        self.seq += 1
        header = struct.pack(">BBBBI4s4sHBB", 1, 20, flags, 0, self.seq, self.token,
                             socket.inet_aton(self.server[0]), self.server[1], 0, 101 if flags == DATA else 0)
        self.socket.sendto(header + payload, self.data)

    def exchange(self, payload):
        self.send(DATA, payload)
        return self.socket.recv(65536)[20:]

    def probe(self):
        self.send(PROBE, struct.pack("<IIQ", PROBE_MAGIC, self.seq + 1, 0))
        return self.socket.recv(100)

    def end(self):
        self.send(END)
        self.socket.close()


def check_rest(checks, node):
    metrics = node.served.metrics()
    metrics.check(checks)
    sums = {name: metrics.sum(name) for name in metrics.names() if name.endswith("_total")}
    checks.that(sums and not any(sums.values()), "a node that has done nothing has counted nothing", sums)
    checks.that(metrics.sum("vyr_node_behaviour") == 0, "and is a good one")


def eventually(checks, node, name, wanted, what, **labels):
    """The figures are a tenth of a second old at most."""
    found = served.wait_until(lambda: node.served.metrics().value(name, **labels) == wanted, 10)
    checks.that(found, what, f"{name}{labels}: {node.served.metrics().value(name, **labels)}, wanted {wanted}")


def check_streams(checks, node, echo):
    with connect(node, echo.address) as connection:
        checks.that(result_of(connection) == 0, "a connection is carried")
        threading.Thread(target=connection.sendall, args=(bytes(STREAM),), daemon=True).start()
        left = STREAM
        while left and (data := connection.recv(65536)):
            left -= len(data)
        for direction in ("to_server", "to_client"):
            eventually(checks, node, "vyr_node_bytes_total", STREAM, "what an open connection has carried",
                       protocol="tcp", direction=direction)
        eventually(checks, node, "vyr_node_connections", 1, "it is open")
    eventually(checks, node, "vyr_node_connections_ended_total", 1, "it has ended", how="closed")
    eventually(checks, node, "vyr_node_bytes_total", STREAM, "its bytes are counted once", protocol="tcp",
               direction="to_server")
    with socket.create_connection(endpoint(node.listening["address"])) as connection:
        connection.sendall(b"GET / HTTP/1.1\r\n\r\n" + bytes(80))
        eventually(checks, node, "vyr_node_bad_requests_total", 1, "a request that is none", protocol="tcp")
    own = connect(node, endpoint(node.listening["metrics"]))
    checks.that(result_of(own) == 1, "a client does not reach the metrics through the node")
    eventually(checks, node, "vyr_node_refusals_total", 1, "and is refused", protocol="tcp", result="1")
    eventually(checks, node, "vyr_node_server_failures_total", 1, "as if there were none", protocol="tcp")
    eventually(checks, node, "vyr_node_agreements_total", 1, "one was agreed to", protocol="tcp")


def check_flows(checks, node, echo):
    first, second = Flow(node, echo.address, 1), Flow(node, echo.address, 2)
    for flow in (first, second):
        for size in (10, 20, 30):
            checks.that(flow.exchange(bytes(size)) == bytes(size), "a datagram comes back")
        flow.probe()
    eventually(checks, node, "vyr_node_flows", 2, "two flows are open")
    first.end()
    eventually(checks, node, "vyr_node_flows_closed_total", 1, "one has ended")
    eventually(checks, node, "vyr_node_flows", 1, "the other is open")
    for direction in ("to_server", "to_client"):
        eventually(checks, node, "vyr_node_datagrams_total", 6, "datagrams of both", direction=direction)
        eventually(checks, node, "vyr_node_bytes_total", 120, "bytes of both", protocol="udp", direction=direction)
    eventually(checks, node, "vyr_node_probes_total", 2, "probes of both")
    eventually(checks, node, "vyr_node_probe_answers_total", 2, "each was answered")
    first.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    first.send(DATA, b"late")
    eventually(checks, node, "vyr_node_unknown_datagrams_total", 1, "a datagram of no flow")
    control(node, command="set", data_up_loss=100, probe_up_loss=100)
    for flags, lane in ((DATA, "data_up"), (PROBE, "probe_up")):
        second.send(flags, b"lost")
        eventually(checks, node, "vyr_node_dropped_datagrams_total", 1, "what an impairment took", lane=lane)
    eventually(checks, node, "vyr_node_behaviour", 1, "and that there is one", behaviour="data_up_loss", value="100")
    control(node, command="restore")
    second.end()


def check_misbehaviour(checks, node, echo):
    def misbehaved(behaviour, value, count=1):
        eventually(checks, node, "vyr_node_misbehaved_total", count, f"{behaviour} {value}", behaviour=behaviour,
                   value=value)

    control(node, command="set", result=9)
    with connect(node, echo.address) as connection:
        checks.that(result_of(connection) == 9, "a refusal")
    checks.that(Flow(node, echo.address, 3).result == 9, "of a flow as well")
    misbehaved("result", "9", 2)
    for protocol in ("tcp", "udp"):
        eventually(checks, node, "vyr_node_refusals_total", 1, "refusals", protocol=protocol, result="9")
    for on_request in ("silent", "close", "reset", "garbage"):
        control(node, command="restore")
        control(node, command="set", on_request=on_request)
        with connect(node, echo.address):
            misbehaved("on_request", on_request)
    eventually(checks, node, "vyr_node_garbage_answers_total", 1, "garbage", protocol="tcp")
    control(node, command="restore")
    control(node, command="set", on_accept="close")
    with connect(node, echo.address):
        misbehaved("on_accept", "close")
    control(node, command="restore")
    control(node, command="set", server="refuse")
    with connect(node, echo.address):
        misbehaved("server", "refuse")
    control(node, command="restore")
    control(node, command="set", reset_after_bytes=5)
    with connect(node, echo.address) as connection, contextlib.suppress(OSError):
        result_of(connection)
        connection.sendall(b"0123456789")
        misbehaved("reset_after_bytes", "5")
    control(node, command="restore")
    eventually(checks, node, "vyr_node_connections", 0, "all have ended")
    metrics = node.served.metrics()
    checks.that(metrics.value("vyr_node_connections_ended_total", how="reset") >= 2, "some by a reset")
    checks.that(metrics.sum("vyr_node_connections_ended_total") == metrics.sum("vyr_node_connections_accepted_total"),
                "as many as were accepted", metrics.text)
    checks.that(node.served.metrics().sum("vyr_node_misbehaved_total") == 9, "nothing else was misbehaviour",
                node.served.metrics().text)


def main():
    checks, echo = Checks(), Echo()
    with Node(sys.argv[1]) as node:
        check_rest(checks, node)
        check_streams(checks, node, echo)
        check_flows(checks, node, echo)
        check_misbehaviour(checks, node, echo)
        node.served.metrics().check(checks)
        status, health = node.served.health()
        checks.that(status == 200 and health["status"] == "ok", "the node is well", health)
        checks.that(node.end() == 0, "it ends when told")
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
