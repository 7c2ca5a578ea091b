#!/usr/bin/env python3
"""A client program in Python: serves one game through one node, and prints every report as JSON.

    python serve_one_game.py GAME.EXE NODE:PORT SERVER LOG_FOLDER

GAME.EXE is the full path of the game's program, SERVER the address of its server. Prints "ready", then a line
for each report, until its standard input ends. The records are made from include/vyr_regions.h, which must be
beside this folder. docs/regions.md explains each step. Needs nothing but Python for Windows.
"""
import ctypes
import json
import pathlib
import re
import socket
import sys
import threading

HEADER = pathlib.Path(__file__).resolve().parent.parent / "include" / "vyr_regions.h"
TYPES = {"uint8_t": ctypes.c_uint8, "uint16_t": ctypes.c_uint16, "uint32_t": ctypes.c_uint32,
         "uint64_t": ctypes.c_uint64, "int32_t": ctypes.c_int32, "char": ctypes.c_char, "double": ctypes.c_double}
GAME_ID, GAME_IDC, NODE_IDC = 10001, 1001, 1  # any numbers on which the tables agree
LOCK_WAIT_MS = 2000  # a game may hang while it holds a mutex
DRAIN_EVERY_S = 0.1
WAIT_OBJECT_0, WAIT_ABANDONED = 0, 0x80
PAGE_READWRITE, FILE_MAP_ALL_ACCESS, ERROR_ALREADY_EXISTS = 4, 0xF001F, 183
# Administrators, the system and the user at the machine: games must find the objects of an elevated program.
ACCESS = "D:(A;;GA;;;SY)(A;;GA;;;BA)(A;;GA;;;IU)"
REPORTS = ("LOADED", "LOG_PATH", "DECISION", "NEGOTIATION_RESULT", "REAL_NEGOTIATION", "COMMUNICATION",
           "RECOVERY_SWITCH")


def read_header(text):
    """The header's numbers and texts, and a ctypes structure for each of its records."""
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.DOTALL)
    constants, records = {}, dict(TYPES)
    for name, number, words in re.findall(r'#define VYR_(\w+) (?:(0x[0-9a-f]+|\d+)u?|"(\w+)")', text):
        constants[name] = words or int(number, 0)
    for name, body, alias, of in re.findall(
            r"typedef struct vyr_(\w+) \{(.*?)\}|typedef vyr_(\w+) vyr_(\w+);", text, re.DOTALL):
        if of:
            records[of] = records[alias]
            continue
        fields = []
        for kind, field, bounds in re.findall(r"(\w+) (\w+)((?:\[\w+\])*);", body):
            kind = records[kind.removeprefix("vyr_")]
            for bound in reversed(re.findall(r"\[(\w+)\]", bounds)):
                kind = kind * (int(bound) if bound.isdigit() else constants[bound.removeprefix("VYR_")])
            fields.append((field, kind))
        records[name] = type(name, (ctypes.LittleEndianStructure,), {"_pack_": 1, "_fields_": fields})
    return constants, records


CONSTANTS, RECORDS = read_header(HEADER.read_text(encoding="utf-8"))


def new_record(name):
    record = RECORDS[name]()
    record.header.shared_mem_size = ctypes.sizeof(record)
    record.header.major_ver = CONSTANTS["SHARED_MEM_MAJOR_VERSION"]
    record.header.minor_ver = CONSTANTS["SHARED_MEM_MINOR_VERSION"]
    return record


class Windows:
    """The Windows calls that a client program needs."""

    def __init__(self):
        self.kernel = kernel = ctypes.WinDLL("kernel32", use_last_error=True)
        handle, number, text = ctypes.c_void_p, ctypes.c_uint32, ctypes.c_char_p
        for name, result, arguments in (
                ("CreateMutexA", handle, (handle, ctypes.c_int, text)),
                ("CreateFileMappingA", handle, (handle, handle, number, number, number, text)),
                ("MapViewOfFile", handle, (handle, number, number, number, ctypes.c_size_t)),
                ("WaitForSingleObject", number, (handle, number)), ("ReleaseMutex", ctypes.c_int, (handle,))):
            function = getattr(kernel, name)
            function.restype, function.argtypes = result, arguments
        descriptor = ctypes.c_void_p()
        make = ctypes.WinDLL("advapi32").ConvertStringSecurityDescriptorToSecurityDescriptorW
        make.argtypes = (ctypes.c_wchar_p, number, handle, handle)
        if not make(ACCESS, 1, ctypes.byref(descriptor), None):
            raise OSError("no security descriptor")

        class Attributes(ctypes.Structure):
            _fields_ = [("size", number), ("descriptor", handle), ("inherit", ctypes.c_int)]

        self._attributes = Attributes(ctypes.sizeof(Attributes), descriptor, 0)

    def _checked(self, result, name):
        if not result:
            raise OSError(f"cannot make or open {name}: error {ctypes.get_last_error()}")
        return result

    def mutex(self, name):
        return self._checked(
            self.kernel.CreateMutexA(ctypes.byref(self._attributes), 0, name.encode()), name)

    def mapping(self, name, size):
        """The address of the whole mapping, and whether it is new."""
        mapping = self._checked(self.kernel.CreateFileMappingA(
            ctypes.c_void_p(-1), ctypes.byref(self._attributes), PAGE_READWRITE, 0, size, name.encode()), name)
        is_new = ctypes.get_last_error() != ERROR_ALREADY_EXISTS
        return self._checked(self.kernel.MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size), name), is_new

    def lock(self, mutex):
        """A mutex whose holder has died counts as taken."""
        return self.kernel.WaitForSingleObject(mutex, LOCK_WAIT_MS) in (WAIT_OBJECT_0, WAIT_ABANDONED)

    def unlock(self, mutex):
        self.kernel.ReleaseMutex(mutex)


class Region:
    """A mapping with its mutex. Made or taken over; nothing is closed before the program ends, because the
    open handles keep the region alive."""

    def __init__(self, windows, name, size):
        self.windows, self.name = windows, CONSTANTS[name + "_REGION_NAME"]
        self.mutex = windows.mutex(CONSTANTS[name + "_MUTEX_NAME"])
        with self:
            self.address, self.is_new = windows.mapping(self.name, size)

    def __enter__(self):
        if not self.windows.lock(self.mutex):
            raise TimeoutError(f"another process holds the mutex of {self.name}")

    def __exit__(self, *reason):
        self.windows.unlock(self.mutex)

    def check_header(self, offset, record):
        """Games may have what was there before open, so it must have this layout."""
        size = ctypes.sizeof(RECORDS["shared_mem_header"])
        if ctypes.string_at(self.address + offset, size) != bytes(record.header):
            raise OSError(f"{self.name} belongs to a program of another version")


def publish(windows, name, record):
    """A plain region: one copy under the mutex."""
    region = Region(windows, name, ctypes.sizeof(record))
    with region:
        if not region.is_new:
            region.check_header(0, record)
        ctypes.memmove(region.address, ctypes.byref(record), ctypes.sizeof(record))


def publish_route(windows, record):
    """The double-buffered region: the buffer that is not read, then the selector."""
    size, word = ctypes.sizeof(record), ctypes.sizeof(ctypes.c_uint32)
    region = Region(windows, "ROUTE", word + 2 * size)
    with region:
        selector, following = ctypes.c_uint32.from_address(region.address), 0
        if region.is_new:
            ctypes.memmove(region.address + word + size, ctypes.byref(record.header), 12)
        else:
            following = 1 if selector.value == 0 else 0
            region.check_header(word + (1 - following) * size, record)
        ctypes.memmove(region.address + word + following * size, ctypes.byref(record), size)
        selector.value = following  # an aligned word: x86 keeps it behind the copy


def publish_tables(windows, path, node, port, server, logs):
    addresses = new_record("ip_table_region")
    addresses.ip_count = 1
    addresses.records[0].game_idc = GAME_IDC
    addresses.records[0].ip = int.from_bytes(socket.inet_aton(server), "little")  # network byte order in memory
    publish(windows, "IP_TABLE", addresses)

    table = new_record("route_region")
    table.image.proxy_count = 1
    proxy = table.image.proxies[0]
    proxy.proxy_idc, proxy.proxy_addr, proxy.proxy_port = NODE_IDC, node.encode(), port
    proxy.proxy_name, proxy.section1_delay, proxy.surport_isps = b"the node", 10, 0xFFFFFFFF
    routes = table.image.route_sets[0]
    routes.route_count = 1
    routes.routes[0].game_idc, routes.routes[0].direct_delay = GAME_IDC, 60
    way = routes.routes[0].ref_default
    way.proxy_idc, way.decision, way.section2_delay, way.last_node = NODE_IDC, 0, 12, NODE_IDC
    publish_route(windows, table)

    # Last: from now on programs that start under this path are served.
    games = new_record("restriction_region")
    game = games.games[0]
    game.valid, game.game_id, game.acc_mode, game.path_count = 1, GAME_ID, 1, 1
    game.net_mode = CONSTANTS["NET_MODE_TCP"] | CONSTANTS["NET_MODE_UDP"]
    game.game_paths[0].value = path.encode()
    game.uin, game.log_level, game.log_path = b"20001", 4, logs.encode()
    publish(windows, "RESTRICTION", games)


def plain(value):
    """A record as dictionaries, without its reserved bytes."""
    if isinstance(value, ctypes.Structure):
        return {name: plain(getattr(value, name)) for name, _ in value._fields_ if not name.startswith("reserved")}
    if isinstance(value, bytes):
        return value.decode(errors="replace")
    return [plain(one) for one in value] if isinstance(value, ctypes.Array) else value


class Channel:
    """One kind of report."""

    def __init__(self, windows, name):
        self.kind, self.record = name.lower(), RECORDS[name.lower() + "_region"]
        self.region = Region(windows, name, ctypes.sizeof(self.record))
        self.shared = self.record.from_address(self.region.address)
        empty = new_record(name.lower() + "_region")
        with self.region:
            if self.region.is_new:
                self.shared.header = empty.header
            self.region.check_header(0, empty)

    def drain(self):
        """Copies the full slots and frees them under the mutex; the caller prints without it."""
        taken = []
        try:
            with self.region:
                for slot in self.shared.slots:
                    if slot.used:
                        taken.append(type(slot).from_buffer_copy(slot))
                        slot.used = 0
        except TimeoutError:
            pass  # a game hangs with the mutex: another time
        return [{"event": self.kind, **plain(record)} for record in taken]


def serve(windows, path, endpoint, server, logs, ended):
    """Until `ended`, an event, is set."""
    node, port = endpoint.split(":")
    channels = [Channel(windows, name) for name in REPORTS]
    publish_tables(windows, path, node, int(port), server, logs)
    print("ready", flush=True)
    last = False
    while not last:
        last = ended.wait(DRAIN_EVERY_S)  # what has come since the last look is printed, too
        for report in (report for channel in channels for report in channel.drain()):
            print(json.dumps(report), flush=True)


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    ended = threading.Event()
    threading.Thread(target=lambda: (sys.stdin.read(), ended.set()), daemon=True).start()
    serve(Windows(), *sys.argv[1:], ended)


if __name__ == "__main__":
    main()
