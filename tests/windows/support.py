"""What the tests share: native peers in the bed, and running a Windows program in each way.

Ways to run a program:
  none    the program alone
  bare    in the host, with the base provider only
  other   with the library, as a process that it does not serve
  served  with the library, as a process that it serves

A program that is served without a configuration is run as a copy named net_probe.exe, with "-test"
at the end of its command line. Every way uses that argument, so the program's command line is always
the same.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "scripts"))
import demo_bed  # noqa: E402

WINE = ROOT / "scripts" / "wine"
SERVER = "198.51.100.10" if os.environ.get("VYR_TESTBED") else "127.0.0.1"
SUFFIXES = {"x86": "", "x64": "64"}  # of the names of programs and DLLs
REPLACED_ENTRIES = 12
WAYS = ("none", "bare", "other", "served")
LONGEST_RUN_S = 60


def parse_arguments(*extra):
    parser = argparse.ArgumentParser()
    parser.add_argument("--bin", type=pathlib.Path, required=True)
    parser.add_argument("--probes", type=pathlib.Path, required=True)
    parser.add_argument("--kind", choices=tuple(SUFFIXES), default="x86", help="what was built")
    for name, options in extra:
        parser.add_argument(name, **options)
    arguments = parser.parse_args()
    if shutil.which("wine") is None:
        skip("no Wine here")
    return arguments


def project_version():
    """The version, from the one place that has it."""
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"^project\(vyr VERSION ([0-9.]+)", text, re.M).group(1)


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def needs_bed(*programs, presets="the posix preset builds it"):
    """Skips the test outside the test bed, and where one of these programs is not there."""
    if DRIVE_C is None:
        skip("this runs in the test bed only")
    for program in programs:
        if not program.exists():
            skip(f"no {program}; {presets}")


def client_program(programs):
    """vyr_client for games of these programs' kind. Skips the test if there is none."""
    program = demo_bed.client_program(programs)
    if not program.exists():
        skip(f"no {program}; the windows-x86 preset builds it")
    return program


class Checks:
    """Counts passed and failed checks, which give the exit code."""

    def __init__(self):
        self.passed = 0
        self.failed = 0

    def that(self, condition, what, detail=""):
        if condition:
            self.passed += 1
        else:
            self.failed += 1
            print(f"FAILED: {what}\n{detail}".rstrip())
        return condition

    def equal(self, found, wanted, what):
        return self.that(found == wanted, what, f"  found:  {found!r}\n  wanted: {wanted!r}")

    def end(self):
        print(f"{self.passed} passed, {self.failed} failed")
        sys.exit(1 if self.failed else 0)


# The bed's own drive C. Files that programs leave in its root are removed with the bed.
DRIVE_C = pathlib.Path(os.environ["VYR_WINEPREFIX"], "drive_c") if "VYR_BED_DIR" in os.environ else None


def windows_path(path):
    path = pathlib.Path(os.path.abspath(path))
    if DRIVE_C is not None and path.is_relative_to(DRIVE_C):
        return "C:\\" + str(path.relative_to(DRIVE_C)).replace("/", "\\")
    return "Z:" + str(path).replace("/", "\\")


class EchoServer:
    """Echoes TCP streams and UDP datagrams on one port until the process ends."""

    def __init__(self, address=SERVER):
        self.address = address
        while True:
            self.stream = socket.create_server((address, 0))
            self.port = self.stream.getsockname()[1]
            self.datagram = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            try:
                self.datagram.bind((address, self.port))
                break
            except OSError:
                self.stream.close()
                self.datagram.close()
        threading.Thread(target=self._accept, daemon=True).start()
        threading.Thread(target=self._datagrams, daemon=True).start()

    def _accept(self):
        while True:
            connection, _ = self.stream.accept()
            threading.Thread(target=self._echo, args=(connection,), daemon=True).start()

    @staticmethod
    def _echo(connection):
        with connection:
            try:
                while data := connection.recv(65536):
                    connection.sendall(data)
            except OSError:
                pass  # the peer ended without closing the connection, as some probes do

    def _datagrams(self):
        while True:
            data, peer = self.datagram.recvfrom(65536)
            self.datagram.sendto(data, peer)


class Result:
    def __init__(self, completed, trace, folder):
        self.code = completed.returncode
        self.output = completed.stdout.decode("utf-8", "replace").replace("\r\n", "\n")
        self.errors = completed.stderr.decode("utf-8", "replace").replace("\r\n", "\n")
        self.trace = trace
        self.folder = folder

    def starts(self):
        return [line for line in self.trace if "start" in line]

    def cleanups(self):
        return [line for line in self.trace if "cleanup" in line]

    def calls(self, through):
        return {
            line["call"]: line for line in self.trace if line.get("through") == through
        }

    def debug_output(self):
        return "\n".join(line["debug_output"] for line in self.trace if "debug_output" in line)


def read_trace(path):
    if not path.exists():
        return []
    with open(path, encoding="utf-8", errors="replace") as file:
        return [json.loads(line) for line in file]


class Runner:
    def __init__(self, arguments):
        arguments.bin = arguments.bin.resolve()
        arguments.probes = arguments.probes.resolve()
        self.bin = arguments.bin
        self.probes = arguments.probes
        self.kind = arguments.kind
        self.launcher = self.file("vyr_run", ".exe")
        self.library = self.file("vyr_lsp", ".dll")
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vyr-probe-", dir=DRIVE_C))

    def file(self, name, extension):
        """The file for this kind of program, of a pair that exists for both kinds."""
        return self.bin / f"{name}{SUFFIXES[self.kind]}{extension}"

    def stage(self, program, name):
        """Copies a program into a new folder, with its DLL if it has one."""
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.folder))
        shutil.copy(program, folder / name)
        module = self.probes / "probe_module.dll"
        if module.exists():
            shutil.copy(module, folder)
        return folder

    def launch(self, folder, name, arguments, options=(), timeout=LONGEST_RUN_S):
        """Runs the program with vyr_run and a trace."""
        trace = folder / "trace.jsonl"
        command = [
            self.launcher,
            "--quiet",
            "--trace",
            windows_path(trace),
            *options,
            windows_path(folder / name),
            *arguments,
        ]
        completed = self.wine(command, folder, timeout=timeout)
        return Result(completed, read_trace(trace), folder)

    def wine(self, command, folder, **options):
        return subprocess.run(
            [WINE, *map(str, command)],
            cwd=folder,
            stdin=options.pop("stdin", subprocess.DEVNULL),
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            timeout=options.pop("timeout", LONGEST_RUN_S),
            **options,
        )

    def run(self, way, program, arguments):
        name = "net_probe.exe" if way == "served" else "program.exe"
        folder = self.stage(program, name)
        arguments = [*map(str, arguments), "-test"]
        if way == "none":
            completed = self.wine([windows_path(folder / name), *arguments], folder)
            return Result(completed, [], folder)
        return self.launch(folder, name, arguments, ["--bare"] if way == "bare" else [])


class Stage:
    """What a test in the bed begins with. It needs these native programs."""

    def __init__(self, arguments, *programs):
        needs_bed(*programs)
        self.checks = Checks()
        self.runner = Runner(arguments)


class StageOfBothKinds(Stage):
    """For programs of both kinds: `--bin` has the 64-bit ones, `--other` those of the other preset."""

    def __init__(self, arguments, *programs):
        super().__init__(arguments, *programs)
        other = arguments.other.resolve()
        self.bins = {"x86": other, "x64": arguments.bin}
        self.probes = {"x86": other.parent / "tests/windows/probes", "x64": arguments.probes}
