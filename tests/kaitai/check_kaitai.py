#!/usr/bin/env python3
"""The Kaitai Struct descriptions in docs/ against the records in src/ and against bytes that were written.

usage: check_kaitai.py VYR_CLIENT REGIONS_TESTS FOLDER

What was written stays in FOLDER. Exit code 77 where the compiler is not there and cannot be fetched.
"""
import base64
import os
import pathlib
import random
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "scripts"), str(ROOT / "tests" / "dissector")]
import examples_check  # noqa: E402
import javascript  # noqa: E402
import make_regions_header  # noqa: E402

REGIONS, WIRE = ROOT / "docs" / "vyr_regions.ksy", ROOT / "docs" / "vyr_wire.ksy"
TIMEOUT_S = 120
EXACT = 1 << 53  # beyond it the parser's numbers are rounded


def camel(name):
    first, *rest = name.split("_")
    return first + "".join(word[:1].upper() + word[1:] for word in rest)


class Parser:
    def __init__(self, folder):
        self.folder = folder

    def __call__(self, asked):
        """asked: (description, type, bytes). Returns the list of answers."""
        questions = [{"ksy": str(ksy), "type": kind, "bytes": base64.b64encode(data).decode()}
                     for ksy, kind, data in asked]
        return javascript.ask(ROOT / "tests/kaitai/parse.js", questions, self.folder, timeout_s=TIMEOUT_S)


def integers(formats, record, data):
    """The record's own integers as its offsets say, by their names in the parser."""
    for field in record.fields:
        size = make_regions_header.INTEGERS.get(field.type)
        if size is None or field.type in ("char", "double") or field.dimensions:
            continue
        signed = field.type.startswith("i")
        value = int.from_bytes(data[field.offset:field.offset + size], "little", signed=signed)
        if abs(value) < EXACT:
            yield camel(field.name), value


def check_records(checks, parse):
    """Random bytes: every field comes out from its offset, and the record ends where it ends."""
    sources = {path: (ROOT / path).read_text(encoding="utf-8") for path in make_regions_header.FILES}
    formats = make_regions_header.Formats(sources)
    chance = random.Random(11)
    records = list(formats.records.values())
    written = [chance.randbytes(record.size) + b"more" for record in records]
    answers = parse([(REGIONS, make_regions_header.lower(record.name), data)
                     for record, data in zip(records, written)])
    for record, data, answer in zip(records, written, answers):
        checks.equal(answer.get("consumed"), record.size, f"{record.name}: its size {answer.get('error', '')}")
        value = answer.get("value", {})
        checks.equal(list(value), [camel(field.name) for field in record.fields], f"{record.name}: its fields")
        wanted = dict(integers(formats, record, data))
        checks.equal({name: value.get(name) for name in wanted}, wanted, f"{record.name}: its integers")


def text_of(field):
    return bytes.fromhex(field).split(b"\0")[0].decode()


def check_route_file(checks, parse, client, folder):
    """The sample's route table, as the client program writes it for the library."""
    sample, routes = folder / "sample.toml", folder / "routes.dat"
    sample.write_bytes(subprocess.run([client, "sample"], capture_output=True, check=True).stdout)
    subprocess.run([client, "compile", sample, "--route-file", routes], check=True, capture_output=True)
    (answer,) = parse([(REGIONS, "route_table_image", routes.read_bytes())])
    checks.equal(answer.get("consumed"), routes.stat().st_size, "the route table's size")
    image = answer["value"]
    used = image["proxies"][:image["proxyCount"]]
    found = [(text_of(p["proxyName"]), text_of(p["proxyAddr"]), p["proxyPort"], p["proxyIdc"]) for p in used]
    said = sample.read_text(encoding="utf-8")
    names = re.findall(r"^proxy_name = '(.*)'", said, re.MULTILINE)
    addresses = re.findall(r"^proxy_addr = '(.*)'", said, re.MULTILINE)
    checks.equal([row[:2] for row in found], list(zip(names, addresses))[:len(found)], "the nodes of the sample")
    checks.equal(len(found), 3, "their number")
    checks.equal({row[2] for row in found}, {9000}, "their port")
    first = image["routeSets"][0]["routes"][0]
    checks.equal((text_of(first["entryName"]), first["gameIdc"]), ("east", 1001), "the first route")


def check_written_in_c(checks, parse, regions_tests, folder):
    subprocess.run([regions_tests, "--gtest_filter=*IntoAFolder"], check=True, capture_output=True,
                   env={**os.environ, "VYR_REGIONS_FOLDER": str(folder)})
    kinds = ("restriction_region", "decision_region")
    games, decisions = (a["value"] for a in parse([(REGIONS, k, (folder / k).read_bytes()) for k in kinds]))
    checks.equal(games["header"], {"sharedMemSize": 134216, "majorVer": 1, "minorVer": 36}, "the header")
    game = games["games"][-1]
    checks.equal((game["valid"], game["netMode"], game["maxValidTestDelay"], game["gameVipLevel"]),
                 (1, 0x18, 1500, 3), "the last game")
    checks.equal(text_of(game["gamePaths"][-1]), "C:\\games\\game.exe", "its last path")
    checks.equal(game["manualRoutes"][-1]["lastNode"], 7, "its last manual route")
    decision = decisions["slots"][-1]
    checks.equal((decision["used"], decision["accReason"], decision["selectedProxy"]["decision"],
                  decision["gltRouteInfo"]["proxy"]["lastNode"], decision["gltWord"]), (1, -1, 8, 9, 11),
                 "the last decision")


SERVER = {"gameIp": 0xCB007109, "gamePort": 27015}
LAST_NODE = {"nodeId": 3001, "port": 9100, "ip": 0xC6336415, "acclToken": 0xA1B2C3D4}
ANSWER = {"acclToken": 0x01020304, "clientIsp": 4, "clientIp": 0xC000024D, "acclDataIp": 0xC6336414,
          "acclDataPort": 9200}
ABSENT = None
MESSAGES = (
    ("`NegoRequest`, version 1", "nego_request", {**SERVER, "retry": 1, "uin": 10001, "lastNode": ABSENT}),
    ("`NegoRequest`, version 2", "nego_request", {**SERVER, "gameIdc": 42, "gameId": ABSENT}),
    ("`NegoRequest`, version 3, `retry` 1", "nego_request", {**SERVER, "flags": 0, "gameId": 0x500000007}),
    ("`NegoRequest`, version 3, moving", "nego_request", {**SERVER, "flags": 2, "lastNode": LAST_NODE}),
    ("`NegoResponse`, version 1, accepted", "nego_response", {**ANSWER, "result": 0, "lastNode": ABSENT}),
    ("`NegoResponse`, version 2", "nego_response", {**ANSWER, "result": 0, "lastNode": LAST_NODE}),
    ("`NegoResponse`, version 3", "nego_response", {**ANSWER, "result": 0, "lastNode": LAST_NODE}),
    ("`NegoResponse`, version 1, refused", "nego_response", {**ANSWER, "result": 9, "lastNode": ABSENT}),
    ("Data, `seq` 7", "wrapped_datagram", {"payload": b"hello".hex(), "probe": ABSENT}),
    ("Data with a header of 24", "wrapped_datagram", {"payload": b"hi".hex(), "unknown": "deadbeef"}),
    ("The end of a flow", "wrapped_datagram", {"payload": "", "probe": ABSENT}),
    ("A probe", "wrapped_datagram", {"probe": {"magic": "8fbd3a25", "seq": 5, "sendTime": 1700000000123}}),
    ("Its answer", "wrapped_datagram", {"probe": {"magic": "8fbd3a25", "seq": 5, "sendTime": 1700000000123}}),
)


def check_messages(checks, parse):
    golden = examples_check.examples()
    written = [examples_check.example(golden, words) for words, _, _ in MESSAGES]
    checks.equal(len(golden), len(MESSAGES), "every example of the document is parsed")
    answers = parse([(WIRE, kind, data) for (_, kind, _), data in zip(MESSAGES, written)])
    for (words, _, wanted), data, answer in zip(MESSAGES, written, answers):
        value = answer.get("value", {})
        checks.equal(answer.get("consumed"), len(data), f"{words}: its length {answer.get('error', '')}")
        checks.equal({name: value.get(name) for name in wanted}, wanted, words)


def main():
    client, regions_tests, folder = map(pathlib.Path, sys.argv[1:4])
    folder.mkdir(parents=True, exist_ok=True)
    parse, checks = Parser(javascript.parts_or_skip("kaitai")), examples_check.Checks()
    check_records(checks, parse)
    check_route_file(checks, parse, client.resolve(), folder)
    check_written_in_c(checks, parse, regions_tests.resolve(), folder)
    check_messages(checks, parse)
    print(f"{checks.passed} passed, {checks.failed} failed")
    return 1 if checks.failed else 0


if __name__ == "__main__":
    sys.exit(main())
