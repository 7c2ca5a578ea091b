#!/usr/bin/env python3
"""tools/vyr.lua over every example of docs/wire.md, over TCP and UDP, and over pieces of them.

usage: examples_check.py FOLDER

The captures stay in FOLDER. Exit code 77 where there is no tshark.
"""
import pathlib
import random
import re
import sys

import capture

CLIENT, NODE, DATA = ("198.51.100.1", 40000), ("198.51.100.20", 9000), ("198.51.100.20", 9200)
STRANGER = ("198.51.100.9", 5555)
EXAMPLE = re.compile(r"^(.+):\n```\n((?:[0-9a-f]{2}[ \n])+)```", re.MULTILINE)
MANY_PIECES = 400


class Checks:
    def __init__(self):
        self.passed = self.failed = 0

    def equal(self, found, wanted, what):
        if found == wanted:
            self.passed += 1
        else:
            self.failed += 1
            print(f"FAILED: {what}\n  found:  {found!r}\n  wanted: {wanted!r}")


def examples():
    """The golden examples of the document: name -> bytes."""
    text = (capture.ROOT / "docs" / "wire.md").read_text(encoding="utf-8")
    golden = text[text.index("## 7. Golden examples"):]
    return {name.strip(): bytes.fromhex(digits) for name, digits in EXAMPLE.findall(golden)}


def example(all_examples, words):
    found = [data for name, data in all_examples.items() if words in name]
    assert found, f"docs/wire.md has no example '{words}'"
    return found[0]


REQUEST_FIELDS = ("vyr.to_node", "vyr.version", "vyr.pkg_len", "vyr.request.flags", "vyr.request.retry",
                  "vyr.request.uin", "vyr.game_ip", "vyr.game_port", "vyr.request.guid", "vyr.last_node.id",
                  "vyr.last_node.ip", "vyr.last_node.port", "vyr.last_node.token", "vyr.request.game_idc",
                  "vyr.request.game_id")
GUID = "00112233-4455-6677-8899-aabbccddeeff"
SERVER = ("203.0.113.9", "27015")
NO_NODE, LAST_NODE = ("0", "0.0.0.0", "0", "0x00000000"), ("3001", "198.51.100.21", "9100", "0xa1b2c3d4")
NONE = ("", "", "", "")
GAME_ID = str(0x0000000500000007)
WANTED_REQUESTS = {
    "`NegoRequest`, version 1": ("1", "1", "49", "0x00000000", "1", "10001", *SERVER, GUID, *NONE, "", ""),
    "`NegoRequest`, version 2": ("1", "2", "65", "0x00000000", "1", "10001", *SERVER, GUID, *NO_NODE, "42", ""),
    "`NegoRequest`, version 3, `retry` 1":
        ("1", "3", "73", "0x00000000", "1", "10001", *SERVER, GUID, *NO_NODE, "42", GAME_ID),
    "`NegoRequest`, version 3, moving":
        ("1", "3", "73", "0x00000002", "0", "10001", *SERVER, GUID, *LAST_NODE, "42", GAME_ID),
}
RESPONSE_FIELDS = ("vyr.to_node", "vyr.version", "vyr.response.result", "vyr.token", "vyr.response.client_isp",
                   "vyr.response.client_ip", "vyr.response.data_ip", "vyr.response.data_port", "vyr.last_node.id",
                   "vyr.last_node.ip", "vyr.last_node.port", "vyr.last_node.token")
SEEN = ("0x01020304", "0x00000004", "192.0.2.77", "198.51.100.20", "9200")
WANTED_RESPONSES = {
    "`NegoResponse`, version 1, accepted": ("0", "1", "0", *SEEN, *NONE),
    "`NegoResponse`, version 2": ("0", "2", "0", *SEEN, *LAST_NODE),
    "`NegoResponse`, version 3": ("0", "3", "0", *SEEN, *LAST_NODE),
    "`NegoResponse`, version 1, refused": ("0", "1", "9", *SEEN, *NONE),
}
DATAGRAM_FIELDS = ("vyr.to_node", "vyr.udp.version", "vyr.udp.head_len", "vyr.udp.flags", "vyr.udp.relay_idx",
                   "vyr.udp.seq", "vyr.token", "vyr.game_ip", "vyr.game_port", "vyr.udp.lost",
                   "vyr.udp.payload_len", "data.data", "vyr.probe.seq", "vyr.probe.send_time_ms")
FLOW = ("0x01020304", *SERVER)
TO_NODE, TO_CLIENT = (CLIENT, DATA), (DATA, CLIENT)
WANTED_DATAGRAMS = {
    "Data, `seq` 7": (TO_NODE, ("1", "1", "20", "0x00", "0", "7", *FLOW, "3", "5", "68656c6c6f", "", "")),
    "Data with a header of 24": (TO_CLIENT, ("0", "1", "24", "0x00", "0", "8", *FLOW, "101", "2", "6869", "", "")),
    "The end of a flow": (TO_NODE, ("1", "1", "20", "0x04", "0", "9", *FLOW, "0", "0", "", "", "")),
    "A probe": (TO_NODE, ("1", "1", "20", "0x08", "0", "5", *FLOW, "0", "16", "", "5", "1700000000123")),
    "Its answer": (TO_CLIENT, ("0", "1", "20", "0x08", "2", "5", *FLOW, "0", "16", "", "5", "1700000000123")),
}


def check_negotiations(checks, golden, path, frame_of, transport):
    written = capture.Capture(path)
    for words in WANTED_REQUESTS:
        written.add(frame_of(CLIENT, NODE, example(golden, words)))
    for words in WANTED_RESPONSES:
        written.add(frame_of(NODE, CLIENT, example(golden, words)))
    written.close()
    found = capture.fields(path, "vyr.request.uin", *REQUEST_FIELDS)
    checks.equal(found, list(WANTED_REQUESTS.values()), f"requests over {transport}")
    found = capture.fields(path, "vyr.response.result", *RESPONSE_FIELDS)
    checks.equal(found, list(WANTED_RESPONSES.values()), f"responses over {transport}")
    requests = capture.fields(path, "vyr.response.result", "vyr.response.request")
    checks.equal(requests, [(str(len(WANTED_REQUESTS)),)] * len(WANTED_RESPONSES), "responses name their request")
    checks.equal(len(capture.fields(path, "vyr.refused", "frame.number")), 1, "one refusal is noted")
    checks.equal(capture.trouble(path), [], f"nothing is malformed over {transport}")


def open_flow(written, golden):
    written.add(capture.udp_frame(CLIENT, NODE, example(golden, "version 3, `retry` 1")))
    written.add(capture.udp_frame(NODE, CLIENT, example(golden, "version 3, accepted")))


def check_datagrams(checks, golden, path):
    written = capture.Capture(path)
    open_flow(written, golden)
    for words, (ends, _) in WANTED_DATAGRAMS.items():
        written.add(capture.udp_frame(*ends, example(golden, words)))
    written.add(capture.udp_frame(CLIENT, STRANGER, example(golden, "Data, `seq` 7")))
    written.close()
    found = capture.fields(path, "vyr.udp.seq", *DATAGRAM_FIELDS)
    checks.equal(found, [wanted for _, wanted in WANTED_DATAGRAMS.values()],
                 "datagrams, and none between other endpoints")
    checks.equal(capture.trouble(path), [], "no datagram is malformed")


def check_answer_with_more(checks, golden, path):
    """A node may send the game server's first bytes together with its answer."""
    written = capture.Capture(path)
    written.add(capture.tcp_frame(CLIENT, NODE, 1, example(golden, "version 3, `retry` 1")))
    written.add(capture.tcp_frame(NODE, CLIENT, 1, example(golden, "version 3, accepted") + b"first"))
    written.add(capture.tcp_frame(NODE, CLIENT, 47, b"second"))
    written.close()
    checks.equal(capture.fields(path, "vyr.response.result", "data.data"), [(b"first".hex(),)], "bytes behind it")
    checks.equal(len(capture.fields(path, "vyr", "frame.number")), 2, "the game's stream is not vyr's")


def check_pieces(checks, golden, path):
    """Cut, lengthened and damaged datagrams are shown, refused or left to others, but never break the script."""
    chance, written = random.Random(7), capture.Capture(path)
    open_flow(written, golden)
    for _ in range(MANY_PIECES):
        data = bytearray(chance.choice(list(golden.values())))
        for _ in range(chance.randrange(4)):
            data[chance.randrange(len(data))] = chance.randrange(256)
        data = bytes(data[:chance.randrange(len(data) + 1)]) + bytes(chance.randrange(3))
        ends = chance.choice(((CLIENT, NODE), (NODE, CLIENT), TO_NODE, TO_CLIENT))
        written.add(capture.udp_frame(*ends, data))
        written.add(capture.tcp_frame(*ends, chance.randrange(1 << 30), data))
    written.close()
    lua = [line for line in capture.trouble(path) if "Lua" in line or "bug" in line]
    checks.equal(lua, [], "no piece breaks the script")


def main():
    if capture.tshark() is None:
        print("skipped: no tshark here")
        return 77
    folder = pathlib.Path(sys.argv[1])
    folder.mkdir(parents=True, exist_ok=True)
    checks, golden = Checks(), examples()
    tested = [*WANTED_REQUESTS, *WANTED_RESPONSES, *WANTED_DATAGRAMS]
    untested = [name for name in golden if not any(words in name for words in tested)]
    checks.equal(untested, [], "every example of the document is tested")
    check_negotiations(checks, golden, folder / "udp.pcap", capture.udp_frame, "UDP")
    sequence = iter(range(1, 1 << 30, 1000))
    check_negotiations(checks, golden, folder / "tcp.pcap",
                       lambda a, b, data: capture.tcp_frame(a, b, next(sequence), data), "TCP")
    check_datagrams(checks, golden, folder / "datagrams.pcap")
    check_answer_with_more(checks, golden, folder / "answer.pcap")
    check_pieces(checks, golden, folder / "pieces.pcap")
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
