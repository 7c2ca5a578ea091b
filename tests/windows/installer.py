"""The installer package: install, run a program with what was installed, upgrade and downgrade between versions
that differ in their files, also while a program has the library open, uninstall. Nothing is left behind, and a file
that the package has not installed stays. A catalogue in a file gets and loses the library's entries, and a catalogue
that cannot be written leaves nothing installed."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

import relay_bench
import support
from conversation import Conversation
from relayed_transfers import PatternServer

INSTALLED = "C:\\vyr-installed"  # in the bed's own drive
KEY = "HKLM\\Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\vyr"
PARTS = support.ROOT / "scripts" / "release_parts.py"
SCRIPT = support.ROOT / "packaging" / "vyr.nsi"
LONGEST_WAIT_S = 60
TIME = "1700000000"


class Package:
    """An installer of some version, made of what was built. What it has beside that, and the library's bytes, differ
    from version to version."""

    def __init__(self, runner, folder, version):
        self.version = version
        self.stage = folder / version
        programs = self.stage / f"windows-{runner.kind}" / "bin"
        programs.mkdir(parents=True)
        for name in ("vyr_lsp", "winsock_host", "winsock_base"):
            shutil.copy(runner.file(name, ".dll"), programs)
        for name in ("vyr_run", "vyr_setup"):
            program = runner.file(name, ".exe")
            if program.exists():
                shutil.copy(program, programs)
        with open(programs / runner.file("vyr_lsp", ".dll").name, "ab") as library:
            library.write(f"version {version}".encode())  # behind what the loader reads
        for name in ("in each.txt", f"only in {version}.txt", f"folder of {version}/deep/file.txt", "docs/in each.txt"):
            (self.stage / name).parent.mkdir(parents=True, exist_ok=True)
            (self.stage / name).write_text(f"{name} of {version}")
        self.file = folder / f"vyr-{version}-setup.exe"
        environment = {**os.environ, "SOURCE_DATE_EPOCH": TIME}
        lists = folder / f"lists-{version}"
        subprocess.run([sys.executable, "-B", PARTS, "nsis", self.stage, lists], check=True, env=environment)
        subprocess.run(["makensis", "-V2", "-NOCD", f"-DVERSION={version}", f"-DLISTS={lists}",
                        f"-DOUTPUT={self.file}", SCRIPT], check=True, env=environment)

    def contents(self):
        return {str(path.relative_to(self.stage)): path.read_bytes()
                for path in self.stage.rglob("*") if path.is_file()}


def below(folder):
    return {str(path.relative_to(folder)): path.read_bytes() for path in folder.rglob("*") if path.is_file()}


def all_files():
    """What is on the bed's own drive. An uninstaller runs as a copy in the folder for temporary files,
    which Windows deletes at its next start."""
    found = set()
    for folder, folders, names in os.walk(support.DRIVE_C):
        folders[:] = [name for name in folders if name.lower() not in ("temp", "tmp")]
        found |= {os.path.join(folder, name) for name in folders + names}
    return {name for name in found if "vyr-probe-" not in name}


class Machine:
    def __init__(self, runner, checks, folder):
        self.runner, self.checks, self.folder = runner, checks, folder
        self.place = support.DRIVE_C / INSTALLED[3:]
        self.catalogue = folder / "catalogue.json"

    def options(self):
        return [f"/CATALOGUE={support.windows_path(self.catalogue)}"] if self.has_setup() else []

    def nowhere(self):
        return support.windows_path(self.folder / "no such folder" / "catalogue.json")

    def has_setup(self):
        return self.runner.file("vyr_setup", ".exe").exists()

    def copy_catalogue(self):
        """Wine's own catalogue as a file, for vyr_setup to change."""
        if self.has_setup():
            program = self.runner.file("vyr_setup", ".exe")
            done = self.runner.wine([program, "copy", "--catalogue", support.windows_path(self.catalogue)], self.folder)
            self.checks.equal(done.returncode, 0, "the catalogue can be copied")
            self.checks.equal(self.entries(), 0, "the library is not in it")

    def install(self, package, *options):
        """Without pipes: a desktop that it starts would keep them as long as any program runs."""
        done = subprocess.run([support.WINE, package.file, "/S", *options, f"/D={INSTALLED}"], cwd=self.folder,
                              stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              timeout=support.LONGEST_RUN_S)  # fmt: skip
        return done.returncode

    def uninstall(self, *options):
        """The uninstaller goes on as a copy of itself, so its end is seen by what it removes."""
        program = self.place / "uninstall.exe"
        self.runner.wine([support.windows_path(program), "/S", *options], self.folder)
        deadline = time.monotonic() + LONGEST_WAIT_S
        while program.exists() and time.monotonic() < deadline:
            time.sleep(0.1)
        while self.copies_running() and time.monotonic() < deadline:
            time.sleep(0.1)

    def copies_running(self):
        listed = self.runner.wine(["tasklist"], self.folder).stdout.decode("utf-8", "replace").lower()
        return "au_.exe" in listed or "un_" in listed

    def registered(self, value):
        asked = self.runner.wine(["reg", "query", KEY, "/v", value], self.folder)
        text = asked.stdout.decode("utf-8", "replace")
        return text.split("REG_SZ")[1].strip() if asked.returncode == 0 and "REG_SZ" in text else None

    def check_installed(self, package, also=()):
        found = {name: data for name, data in below(self.place).items()
                 if name not in ("uninstall.exe", *also)}
        wanted = package.contents()
        self.checks.equal(sorted(found), sorted(wanted), f"the files of {package.version} are installed")
        self.checks.that(found == wanted, f"the files of {package.version} are whole")
        self.checks.equal(self.registered("DisplayVersion"), package.version, "its version is registered")
        self.checks.equal(self.registered("InstallLocation"), INSTALLED, "its place is registered")

    def entries(self):
        """How often the catalogue names the installed library."""
        text = self.catalogue.read_text(errors="replace") if self.catalogue.exists() else ""
        return text.lower().count("vyr_lsp")

    def check_entries(self, wanted, when):
        if self.has_setup():
            self.checks.that((self.entries() > 0) == wanted, f"the catalogue {when}", str(self.entries()))


def run_program(machine, arguments):
    """A program does with the installed files what it does alone."""
    arguments.bin = machine.place / f"windows-{arguments.kind}" / "bin"
    installed = support.Runner(arguments)
    server = support.EchoServer()
    program = arguments.probes / "by_name.exe"
    alone = installed.run("none", program, [server.address, server.port])
    served = installed.run("served", program, [server.address, server.port])
    machine.checks.equal(alone.code, 0, "a program runs alone")
    machine.checks.equal((served.code, served.output), (alone.code, alone.output),
                         "it does the same with the installed library")
    machine.checks.that(served.starts(), "the installed library was started", served.errors)


class OpenProgram:
    """A program that has the installed library open, and goes on with it whatever is installed meanwhile."""

    def __init__(self, machine, arguments):
        self.checks, self.server, self.count = machine.checks, PatternServer(), 0
        runner = support.Runner(arguments)
        folder = runner.stage(arguments.probes / "transfer_game.exe", "program.exe")
        self.trace = folder / "trace.jsonl"
        self.program = Conversation(
            [runner.launcher, "--quiet", "--trace", support.windows_path(self.trace),
             support.windows_path(folder / "program.exe"), relay_bench.SERVER, self.server.port], folder)  # fmt: skip

    def transfer(self, when):
        self.count += 1
        answer = self.program.asked("transfer 5000 5000", "transfer")
        self.checks.equal(answer, f"transfer {self.count}: sent right, received right", f"an open program, {when}")

    def end(self):
        self.checks.equal(self.program.end(), 0, "the open program ends")
        trace = support.read_trace(self.trace)
        self.checks.that(any("start" in line for line in trace), "it has started the installed library", str(trace))


def replace_versions(machine, arguments, old, new, own):
    """One version over another, in both directions, with a program that keeps the library open, and with a catalogue
    that cannot be written any more."""
    checks = machine.checks
    program = OpenProgram(machine, arguments)
    program.transfer("before the upgrade")
    checks.equal(machine.install(new, *machine.options()), 0, "it installs over an earlier version")
    left = leftovers(machine)  # a library that is open can be moved, not deleted
    machine.check_installed(new, also=[own.name, *left])
    machine.check_entries(True, "still has the library")
    program.transfer("after the upgrade")
    program.end()
    for name in left:
        (machine.place / name).unlink()  # as Windows does at its next start
    checks.equal(machine.install(old, *machine.options()), 0, "it installs over a later version")
    machine.check_installed(old, also=[own.name])
    code = machine.install(new, f"/CATALOGUE={machine.nowhere()}")
    checks.that(code != 0, "an upgrade whose vyr_setup fails has failed", str(code))
    found = {name: data for name, data in below(machine.place).items() if name not in ("uninstall.exe", own.name)}
    checks.that(found == new.contents(), "the files that the catalogue names are there all the same", str(sorted(found)))
    checks.equal(machine.install(new, *machine.options()), 0, "another try finishes the upgrade")
    machine.check_installed(new, also=[own.name])


def leftovers(machine):
    return [path.name for path in machine.place.glob("ns*.tmp")]


def fail_to_install(machine, package, before):
    """Polite failure: vyr_setup cannot write that catalogue."""
    if not machine.has_setup():
        return
    code = machine.install(package, f"/CATALOGUE={machine.nowhere()}")
    machine.checks.that(code != 0, "a failure of vyr_setup is the installer's", str(code))
    machine.checks.equal(all_files() - before, set(), "a failed installation leaves nothing")
    machine.checks.equal(machine.registered("DisplayVersion"), None, "nor is it registered")


def main():
    arguments = support.parse_arguments()
    if shutil.which("makensis") is None:
        support.skip("no makensis here")
    checks = support.Checks()
    runner = support.Runner(arguments)
    runner.wine(["tasklist"], runner.folder)  # what Wine itself makes on its first use
    with tempfile.TemporaryDirectory(dir=runner.folder) as temporary:
        folder = pathlib.Path(temporary)
        machine = Machine(runner, checks, folder)
        old, new = Package(runner, folder, "0.0.1"), Package(runner, folder, "0.0.2")
        machine.copy_catalogue()
        before = all_files()
        fail_to_install(machine, old, before)
        checks.equal(machine.install(old, *machine.options()), 0, "it installs")
        machine.check_installed(old)
        machine.check_entries(True, "has the library")
        run_program(machine, arguments)
        own = machine.place / "notes.txt"
        own.write_text("not the package's")
        replace_versions(machine, arguments, old, new, own)
        machine.uninstall(*machine.options())
        machine.check_entries(False, "has lost the library")
        checks.equal(below(machine.place), {own.name: own.read_bytes()}, "only a file of others is left")
        shutil.rmtree(machine.place)
        checks.equal(all_files() - before, set(), "nothing is left behind")
        checks.equal(machine.registered("DisplayVersion"), None, "nothing is registered")
    checks.end()


if __name__ == "__main__":
    main()
