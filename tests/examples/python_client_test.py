#!/usr/bin/env python3
"""examples/serve_one_game.py without Windows: its records against the header's own checks, and the program itself
over memory of this process in place of the Windows calls."""
import contextlib
import ctypes
import io
import json
import pathlib
import re
import sys
import threading
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "examples"))
import serve_one_game as client  # noqa: E402

HEADER = (ROOT / "include" / "vyr_regions.h").read_text(encoding="utf-8")
ARGUMENTS = ("C:\\games\\game.exe", "198.51.100.20:9000", "198.51.100.10", "C:\\games\\log\\")
ROUTE_SIZE = 65680


class Memory:
    """In place of client.Windows. A mutex is its name; it must be free when it is taken."""

    def __init__(self):
        self.mappings, self.held, self.hanging = {}, set(), set()

    def mutex(self, name):
        return name

    def mapping(self, name, size):
        is_new = name not in self.mappings
        buffer = self.mappings.setdefault(name, ctypes.create_string_buffer(size))
        assert len(buffer) == size, name
        return ctypes.addressof(buffer), is_new

    def lock(self, mutex):
        assert not self.held, "two mutexes at once"
        if mutex in self.hanging:
            return False
        self.held.add(mutex)
        return True

    def unlock(self, mutex):
        self.held.remove(mutex)

    def bytes_of(self, name):
        return self.mappings[client.CONSTANTS[name + "_REGION_NAME"]].raw

    def record(self, name, kind, offset=0):
        return client.RECORDS[kind].from_buffer_copy(self.bytes_of(name), offset)


def serve(memory):
    """One pass of the program; returns what it printed."""
    ended = threading.Event()
    ended.set()
    with contextlib.redirect_stdout(io.StringIO()) as said:
        client.serve(memory, *ARGUMENTS, ended)
    return said.getvalue().splitlines()


class Records(unittest.TestCase):
    def test_sizes_and_offsets_are_those_of_the_header(self):
        sizes = re.findall(r"^VYR_CHECK_SIZE\(vyr_(\w+), (\d+)\)", HEADER, re.MULTILINE)
        offsets = re.findall(r"^VYR_CHECK_OFFSET\(vyr_(\w+), (\w+), (\d+)\)", HEADER, re.MULTILINE)
        self.assertGreater(len(sizes), 30)
        for name, size in sizes:
            self.assertEqual(ctypes.sizeof(client.RECORDS[name]), int(size), name)
        for name, field, offset in offsets:
            self.assertEqual(getattr(client.RECORDS[name], field).offset, int(offset), f"{name}.{field}")


class Serving(unittest.TestCase):
    def test_the_tables_say_what_was_asked_for(self):
        memory = Memory()
        self.assertEqual(serve(memory), ["ready"])
        game = memory.record("RESTRICTION", "restriction_region").games[0]
        self.assertEqual((game.valid, game.net_mode, game.game_paths[0].value, game.log_path),
                         (1, 0x18, ARGUMENTS[0].encode(), ARGUMENTS[3].encode()))
        self.assertEqual(memory.bytes_of("IP_TABLE")[12:24], bytes.fromhex("01000000 e9030000 c633640a"))
        self.assertEqual(memory.bytes_of("ROUTE")[:4], bytes(4))
        proxy = memory.record("ROUTE", "route_region", 4).image.proxies[0]
        self.assertEqual((proxy.proxy_addr, proxy.proxy_port), (b"198.51.100.20", 9000))
        self.assertEqual(len(memory.mappings), 3 + len(client.REPORTS))
        for name in (*client.REPORTS, "RESTRICTION", "IP_TABLE"):
            header = memory.record(name, "shared_mem_header")
            self.assertEqual((header.shared_mem_size, header.major_ver, header.minor_ver),
                             (len(memory.bytes_of(name)), 1, 36), name)

    def test_a_second_program_takes_over_and_swaps_the_buffers(self):
        memory = Memory()
        serve(memory)
        serve(memory)
        self.assertEqual(memory.bytes_of("ROUTE")[:4], b"\1\0\0\0")
        first, second = (memory.bytes_of("ROUTE")[at:at + ROUTE_SIZE] for at in (4, 4 + ROUTE_SIZE))
        self.assertEqual(first, second)

    def test_regions_of_another_version_are_left_alone(self):
        for name in ("RESTRICTION", "ROUTE", "DECISION"):
            memory = Memory()
            serve(memory)
            buffer = memory.mappings[client.CONSTANTS[name + "_REGION_NAME"]]
            ctypes.memset(ctypes.addressof(buffer) + (4 if name == "ROUTE" else 0) + 8, 35, 1)
            before = buffer.raw
            with self.assertRaisesRegex(OSError, "another version"):
                serve(memory)
            self.assertEqual(buffer.raw, before)

    def test_reports_come_out_once_and_free_their_slots(self):
        memory = Memory()
        serve(memory)
        buffer = memory.mappings[client.CONSTANTS["DECISION_REGION_NAME"]]
        slot = client.RECORDS["decision_region"].from_buffer(buffer).slots[107]
        slot.used, slot.game_id, slot.guid, slot.acc_reason = 1, 77, b"flow", -1
        (report,) = map(json.loads, serve(memory)[1:])
        self.assertEqual((report["event"], report["game_id"], report["guid"], report["acc_reason"]),
                         ("decision", 77, "flow", -1))
        self.assertEqual(slot.used, 0)
        self.assertEqual(serve(memory), ["ready"])

    def test_a_held_mutex_ends_the_wait(self):
        memory = Memory()
        channel = client.Channel(memory, "LOADED")
        memory.hanging.add(client.CONSTANTS["LOADED_MUTEX_NAME"])
        self.assertEqual(channel.drain(), [])
        memory.hanging.add(client.CONSTANTS["RESTRICTION_MUTEX_NAME"])
        with self.assertRaises(TimeoutError):
            client.publish(memory, "RESTRICTION", client.new_record("restriction_region"))


if __name__ == "__main__":
    unittest.main()
