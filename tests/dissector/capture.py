"""Capture files: writing them, recording them from the loopback device, and reading them with tshark."""
import pathlib
import re
import shutil
import socket
import struct
import subprocess
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCRIPT = ROOT / "tools" / "vyr.lua"
ETHERNET, ANY_PROTOCOL, OUTGOING = 1, 3, 4
LONGEST_PACKET = 262144
TIMEOUT_S = 120
# What Wireshark calls every kind of trouble that a dissector can have with a packet.
TROUBLE = re.compile(rb"Lua Error|Malformed|Dissector bug", re.IGNORECASE)


class Capture:
    """A file in the classic capture format."""

    def __init__(self, path):
        self.path = path
        self.file = open(path, "wb")
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, LONGEST_PACKET, ETHERNET))

    def add(self, frame, when=None):
        seconds, fraction = divmod(time.time() if when is None else when, 1)
        self.file.write(struct.pack("<IIII", int(seconds), int(fraction * 1e6), len(frame), len(frame)) + frame)

    def close(self):
        self.file.close()


def ip_frame(protocol, source, destination, payload):
    header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0, 64, protocol, 0,
                         socket.inet_aton(source), socket.inet_aton(destination))
    return bytes(12) + b"\x08\x00" + header + payload


def udp_frame(source, destination, data):
    """Endpoints are (address, port)."""
    header = struct.pack(">HHHH", source[1], destination[1], 8 + len(data), 0)
    return ip_frame(17, source[0], destination[0], header + data)


def tcp_frame(source, destination, sequence, data):
    header = struct.pack(">HHIIBBHHH", source[1], destination[1], sequence, 1, 0x50, 0x18, 65535, 0, 0)
    return ip_frame(6, source[0], destination[0], header + data)


class Recorder:
    """Records the loopback device of this network namespace for the duration of the block."""

    def __init__(self, path):
        self.capture = Capture(path)
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ANY_PROTOCOL))
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 26)
        self.socket.bind(("lo", ANY_PROTOCOL))
        self.socket.settimeout(0.2)
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self._record, daemon=True)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *reason):
        self.ended.set()
        self.thread.join()
        self.capture.close()

    def _record(self):
        while True:
            try:
                frame, address = self.socket.recvfrom(LONGEST_PACKET)
            except TimeoutError:
                if self.ended.is_set():
                    return
                continue
            if address[2] == OUTGOING:  # each packet passes the device twice
                self.capture.add(frame)


def tshark():
    return shutil.which("tshark")


def fields(path, display_filter, *names):
    """A list for each packet that passes the filter: the values of the fields as text."""
    command = [tshark(), "-n", "-X", f"lua_script:{SCRIPT}", "-r", path, "-Y", display_filter, "-T", "fields"]
    for name in names:
        command += ["-e", name]
    said = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S, check=True)
    return [tuple(line.split("\t")) for line in said.stdout.splitlines()]


def trouble(path, display_filter="frame"):
    """The lines in which tshark complains about a packet that passes the filter, or about the script."""
    done = subprocess.run([tshark(), "-n", "-X", f"lua_script:{SCRIPT}", "-r", path, "-Y", display_filter, "-V"],
                          capture_output=True, timeout=TIMEOUT_S)
    lines = (done.stdout + done.stderr).split(b"\n")
    return [line.decode(errors="replace").strip() for line in lines if TROUBLE.search(line)]
