"""Either kind of vyr_setup changes the catalogues of both kinds of programs, through the vyr_setup of the other
kind: installs, removes, undoes a failure on either side, and finishes what the other has begun. The installation
calls are those of trial_setup, on catalogues in a file, since Wine has none that can be written; the shipped
programs read Wine's own together."""

import json
import os
import shutil

import support
from installed_catalogue import BASE, base_catalogue, setup_entry

KINDS = {"x86": "32", "x64": "64"}
OTHER = {"x86": "x64", "x64": "x86"}
# command | at the front or behind it | call | how it fails
FAULTS = [
    ("install", "behind", "install", "error"), ("install", "behind", "order", "dies-after"),
    ("install", "front", "order", "dies-before"), ("uninstall", "behind", "deinstall", "dies-before"),
    ("uninstall", "front", "deinstall", "dies-after"),
]  # fmt: skip
KILLED = 137


class Stage(support.StageOfBothKinds):
    """The programs in the folders of a release."""

    def __init__(self, arguments):
        super().__init__(arguments)
        self.folders = {kind: self.runner.folder / "release" / f"windows-{kind}" / "bin" for kind in KINDS}
        for kind, folder in self.folders.items():
            folder.mkdir(parents=True)
            files = (self.probes[kind] / "trial" / self.named(kind), self.bins[kind] / self.library(kind))
            support.needs_bed(*files, presets="the windows-x86 preset builds it")
            for file in files:
                shutil.copy(file, folder)
        self.catalogue = self.runner.folder / "machine.json"

    @staticmethod
    def named(kind):
        return f"vyr_setup{support.SUFFIXES[kind]}.exe"

    @staticmethod
    def library(kind):
        return f"vyr_lsp{support.SUFFIXES[kind]}.dll"

    def reset(self):
        """Both catalogues as Windows has them, and no records."""
        content = {"vyr_catalogue": 1, "catalogues": {bits: base_catalogue() for bits in KINDS.values()},
                   "applications": {}}  # fmt: skip
        self.catalogue.write_text(json.dumps(content), encoding="utf-8")
        for record in self.records():
            record.unlink()

    def records(self):
        return [path for folder in self.folders.values() for path in folder.iterdir()
                if path.suffix not in (".exe", ".dll")]

    def run(self, kind, *words, fault="", **options):
        """vyr_setup of that kind; its exit code and what it says."""
        environment = {**os.environ, "VYR_TRIAL_CATALOGUE": support.windows_path(self.catalogue),
                       "VYR_TRIAL_FAULT": fault}  # fmt: skip
        done = self.runner.wine([self.folders[kind] / self.named(kind), *words], self.runner.folder,
                                env=environment, **options)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def on_both(self, kind, code, *words):
        got, out, err = self.run(kind, *words, "--json")
        self.checks.equal(got, code, f"{words} by the {kind} program\n{out}{err}")
        return json.loads(out) if out.startswith("{") else {}

    def content(self):
        return json.loads(self.catalogue.read_text(encoding="utf-8"))

    def entries(self):
        """Both catalogues; entries of the library without their numbers, which are new each time."""
        found = {}
        for bits, catalogue in self.content()["catalogues"].items():
            found[bits] = [{**dict(setup_entry(entry)), **({} if entry["provider"] == BASE else {"id": 0, "chain": 0})}
                           for entry in catalogue["entries"]]  # fmt: skip
        return found

    def check_untouched(self, what):
        wanted = [dict(setup_entry(entry)) for entry in base_catalogue()["entries"]]
        self.checks.equal(self.entries(), {bits: wanted for bits in KINDS.values()}, f"{what}: the catalogues")
        self.checks.equal(self.content()["applications"], {}, f"{what}: the programs' categories")
        self.checks.equal(self.records(), [], f"{what}: no records are left")

    def check_installed(self, front, what):
        status = self.on_both(front, 0, "status")
        states = {one["kind"]: one["state"] for one in status.get("catalogues", [])}
        self.checks.equal(states, dict.fromkeys(KINDS.values(), "complete"), f"{what}: status by {front}")
        self.checks.equal(status.get("all_in_reach"), True, f"{what}: both catalogues are in reach")
        for kind, bits in KINDS.items():
            paths = set(self.content()["catalogues"][bits]["providers"].values()) - {
                base_catalogue()["providers"][BASE]}  # fmt: skip
            wanted = os.path.realpath(self.folders[kind] / self.library(kind))
            found = [os.path.realpath(support.DRIVE_C / path[3:].replace("\\", "/")) for path in paths]
            self.checks.equal(found, [wanted], f"{what}: the library of the {bits}-bit catalogue")


def check_round_trip(stage, front):
    """What one kind has installed, the other one knows and removes."""
    stage.reset()
    stage.on_both(front, 10, "status")
    plan = stage.on_both(front, 0, "install", "--dry-run")
    stage.check_untouched(f"dry run by {front}")
    program = support.windows_path(stage.folders[front] / stage.named(front))
    done = stage.on_both(front, 0, "install")
    stage.installed = stage.catalogue.read_text(encoding="utf-8")
    stage.checks.equal(done.get("steps"), plan.get("steps"), f"{front}: the dry run has said what is done")
    for reader in KINDS:
        stage.check_installed(reader, f"installed by {front}")
        again = stage.on_both(reader, 0, "install")
        stage.checks.equal(again.get("result"), "nothing", f"installed by {front}: nothing to do for {reader}")
    stage.on_both(front, 0, "install", "--exempt", program)
    stage.checks.equal(list(stage.content()["applications"].values()), [0x80000000], f"{front}: a program is exempt")
    stage.on_both(OTHER[front], 0, "uninstall")
    stage.check_untouched(f"removed by the other kind than {front}")


def check_failure(stage, front, command, place, call, how):
    """A call fails, with an error or because the program that makes it dies. If that is the one at the front, the
    other kind finds what it has begun and puts the catalogues back."""
    stage.reset()
    if command == "uninstall":
        stage.catalogue.write_text(stage.installed, encoding="utf-8")
    kind = front if place == "front" else OTHER[front]
    before, what = stage.entries(), f"{command} by {front}, {kind} {call} {how}"
    code, out, err = stage.run(front, command, fault=f"{KINDS[kind]} {call} {how}")
    if place == "front" and how != "error":
        stage.checks.equal(code, KILLED, f"{what}: killed\n{out}{err}")
        status = stage.on_both(OTHER[front], 11, "status")
        stage.checks.equal(status.get("unfinished"), True, f"{what}: the other kind sees it")
        stage.on_both(OTHER[front], 0, "repair")
    else:
        stage.checks.equal(code, 1, f"{what}: exit code\n{out}{err}")
    stage.checks.equal(stage.entries(), before, f"{what}: the catalogues are as before")
    stage.checks.equal(stage.records(), [], f"{what}: no records are left")


def check_hostile_twin(stage):
    """A request that is none changes nothing; an answer that is none is a failure."""
    stage.reset()
    before = stage.content()
    for text in (b"", b"{\n", b"[1]\n", b'{"call": "format"}\n', b'{"call": "install"}\n'):
        environment = {**os.environ, "VYR_TRIAL_CATALOGUE": support.windows_path(stage.catalogue)}
        file = stage.runner.folder / "request.txt"
        file.write_bytes(text)
        with open(file, "rb") as given:
            done = stage.runner.wine([stage.folders["x64"] / stage.named("x64"), "--twin-call"], stage.runner.folder,
                                     env=environment, stdin=given)
        answer = done.stdout.decode()
        refused = done.returncode != 0 or json.loads(answer).get("error", 0) != 0
        stage.checks.that(refused, f"the request {text} is refused", f"{done.returncode} {answer}")
    stage.checks.equal(stage.content(), before, "refused requests change nothing")
    twin = stage.folders["x64"] / stage.named("x64")
    aside = twin.with_suffix(".aside")
    twin.rename(aside)
    shutil.copy(stage.runner.file("vyr_run", ".exe"), twin)
    code, out, err = stage.run("x86", "status")
    stage.checks.that(code == 1 and "cannot be read" in err, "a twin that is another program", f"{code} {out}{err}")
    aside.replace(twin)


def check_shipped_programs(stage):
    """Each kind of the shipped program reads both of Wine's catalogues."""
    found = {}
    for kind in KINDS:
        file = stage.runner.folder / f"{kind}.json"
        done = stage.runner.wine([stage.bins[kind] / stage.named(kind), "copy", "--catalogue",
                                  support.windows_path(file)], stage.runner.folder)  # fmt: skip
        stage.checks.equal(done.returncode, 0, f"the shipped {kind} program copies\n{done.stderr.decode()}")
        catalogues = json.loads(file.read_text(encoding="utf-8"))["catalogues"]
        found[kind] = {bits: bool(catalogue["entries"]) for bits, catalogue in catalogues.items()}
    wanted = dict.fromkeys(KINDS, dict.fromkeys(KINDS.values(), True))
    stage.checks.equal(found, wanted, "both catalogues, by either kind")


def main():
    stage = Stage(support.parse_arguments(("--other", {"type": support.pathlib.Path, "required": True})))
    check_shipped_programs(stage)
    for front in KINDS:
        check_round_trip(stage, front)
        for fault in FAULTS:
            check_failure(stage, front, *fault)
    check_hostile_twin(stage)
    stage.checks.end()


if __name__ == "__main__":
    main()
