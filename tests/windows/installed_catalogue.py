"""vyr_setup works on a catalogue in a file, and programs run from what it has written there: a game is
accelerated under the installed library, and after the removal it finds the base provider again. The
steps of vyr_setup that need Windows end in a refusal here."""

import json

import relay_bench
import restarts
import support

STREAMS, DATAGRAMS = 6, 17
KIND = {"x86": "32", "x64": "64"}
BASE = "{E70F1AA0-AB8B-11CF-8CA3-00805F48A192}"
OTHER = "{11111111-2222-3333-4444-555555555555}"
# name | family | type | protocol | range of protocols
BASE_ENTRIES = [
    ("MSAFD Tcpip [TCP/IP]", 2, 1, 6, 0), ("MSAFD Tcpip [UDP/IP]", 2, 2, 17, 0), ("MSAFD Tcpip [RAW/IP]", 2, 3, 0, 255),
    ("MSAFD Tcpip [TCP/IPv6]", 23, 1, 6, 0), ("MSAFD Tcpip [UDP/IPv6]", 23, 2, 17, 0),
]  # fmt: skip


def base_catalogue():
    entries = [
        {"id": 1001 + i, "name": name, "provider": BASE, "chain_length": 1, "chain": [1001 + i], "family": family,
         "type": kind, "protocol": protocol, "protocol_range": most, "provider_flags": 8, "version": 2,
         "service_flags1": 0x20066 if kind == 1 else 0x20609, "least_address": 16, "most_address": 16}
        for i, (name, family, kind, protocol, most) in enumerate(BASE_ENTRIES)]  # fmt: skip
    paths = {BASE: "%SystemRoot%\\system32\\mswsock.dll"}
    return {"entries": entries, "providers": paths}


class Setup:
    def __init__(self, stage, folder):
        self.runner, self.checks, self.folder = stage.runner, stage.checks, folder
        self.program = stage.runner.file("vyr_setup", ".exe")
        self.file = folder / "catalogue.json"
        self.kind = KIND[stage.runner.kind]

    def run(self, *words):
        done = self.runner.wine([self.program, *words], self.folder)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    def on_file(self, code, command, *words):
        got, out, err = self.run(command, "--catalogue", support.windows_path(self.file), "--json", *words)
        self.checks.equal(got, code, f"{command} {words}: exit code\n{out}{err}")
        return json.loads(out) if out.startswith("{") else {}

    def install(self, code=0, *words):
        option = "--library" if self.kind == "32" else "--library64"
        return self.on_file(code, "install", option, support.windows_path(self.runner.library), *words)

    def content(self):
        return json.loads(self.file.read_text(encoding="utf-8"))

    def status(self, code):
        status = self.on_file(code, "status")
        return next(one for one in status["catalogues"] if one["kind"] == self.kind)

    def write(self, change=None):
        content = {"vyr_catalogue": 1, "catalogues": {self.kind: base_catalogue()}, "applications": {}}
        if change:
            change(content["catalogues"][self.kind])
        self.file.write_text(json.dumps(content), encoding="utf-8")


def run_game(stage, setup, what, ways, hooked):
    """The game's rounds go the given way, from the catalogue in the file."""
    result = stage.run(what, stage.game, "Game.exe", 1, ["--catalogue", support.windows_path(setup.file)])
    stage.checks.equal([both for _, *both, _ in result.rounds], [ways], f"{what}: ways of stream and datagrams")
    starts = [(start["protocol"], start["result"], start["replaced_entries"]) for start in result.starts()]
    wanted = [(protocol, 0, hooked) for protocol in (STREAMS, DATAGRAMS)]
    if hooked:
        stage.checks.equal(starts, wanted, f"{what}: starts")
    stage.checks.equal("WSPConnect" in result.calls("library"), bool(hooked), f"{what}: calls by the library")


def check_round_trip(stage, setup):
    checks, by_node, direct = stage.checks, [relay_bench.NODE] * 2, [restarts.PLAYER] * 2
    setup.write()
    setup.on_file(10, "status")
    before = setup.file.read_bytes()
    plan = setup.install(0, "--dry-run")
    checks.equal(setup.file.read_bytes(), before, "a dry run changes nothing")
    run_game(stage, setup, "before the installation", direct, 0)
    done = setup.install()
    checks.equal(done["steps"], plan["steps"], "the dry run has said what is done")
    checks.equal(setup.install()["result"], "nothing", "a second installation has nothing to do")
    checks.equal(setup.status(0)["state"], "complete", "status")
    names = [entry["name"] for entry in setup.content()["catalogues"][setup.kind]["entries"]]
    checks.that(sum(name.startswith("vyr over [MSAFD") for name in names) == 3, "three layered entries", str(names))
    run_game(stage, setup, "installed", by_node, support.REPLACED_ENTRIES)
    setup.on_file(0, "uninstall")
    checks.equal(setup.content()["catalogues"][setup.kind]["entries"],
                 [dict(setup_entry(entry)) for entry in base_catalogue()["entries"]],
                 "the removal leaves what was there")  # fmt: skip
    run_game(stage, setup, "removed", direct, 0)


def setup_entry(entry):
    """The entry with every field that the program writes."""
    fields = ("name", "provider", "chain_length", "chain", "id", "family", "type", "protocol", "protocol_range",
              "provider_flags", "service_flags1", "service_flags2", "service_flags3", "service_flags4", "version",
              "most_address", "least_address", "byte_order", "security", "message_size", "reserved")  # fmt: skip
    return [(field, entry.get(field, 0)) for field in fields]


def check_repair(stage, setup):
    """Another installer has put its base entries first, and removed one of ours."""
    setup.write()
    setup.install()
    content = setup.content()
    catalogue = content["catalogues"][setup.kind]
    lost = next(entry for entry in catalogue["entries"] if entry["name"] == "vyr over [MSAFD Tcpip [UDP/IP]]")
    catalogue["entries"].remove(lost)
    del catalogue["providers"][lost["provider"]]
    catalogue["entries"].sort(key=lambda entry: entry["provider"] != BASE)
    setup.file.write_text(json.dumps(content), encoding="utf-8")
    stage.checks.that(setup.status(11)["problems"], "the damage is described")
    setup.on_file(0, "repair")
    stage.checks.equal(setup.status(0)["state"], "complete", "repaired")
    run_game(stage, setup, "repaired", [relay_bench.NODE] * 2, support.REPLACED_ENTRIES)


def check_other_provider(stage, setup):
    def add_other(catalogue):
        tcp = next(entry for entry in catalogue["entries"] if entry["id"] == 1001)
        hidden = {**tcp, "id": 1100, "name": "other", "provider": OTHER, "chain_length": 0, "chain": [],
                  "provider_flags": 12}  # fmt: skip
        layered = {**tcp, "id": 1101, "name": "other over TCP", "provider": OTHER, "chain_length": 2,
                   "chain": [1100, 1001]}  # fmt: skip
        catalogue["entries"] = [layered, *catalogue["entries"], hidden]
        catalogue["providers"][OTHER] = "C:\\other\\other.dll"

    setup.write(add_other)
    setup.install()
    status = setup.status(0)
    stage.checks.that(any("other over TCP" in line for line in status["warnings"]), "it says who is first", str(status))
    stage.checks.equal([one["name"] for one in status["other_providers"]], ["other over TCP", "other"], "other providers")
    first = setup.content()["catalogues"][setup.kind]["entries"][0]
    stage.checks.equal(first["name"], "other over TCP", "the other one stays first")


def check_refusals(stage, setup):
    checks = stage.checks
    code, out, _ = setup.run("--help")
    checks.that(code == 0 and "Exit codes" in out, "--help", out)
    code, _, err = setup.run()
    checks.that(code == 2 and err, "no command", err)
    code, _, err = setup.run("status", "--catalogue", "Z:\\no\\such\\file")
    checks.that(code == 3 and "file" in err, "no such file", err)
    setup.file.write_text('{"vyr_catalogue": 1}')
    code, _, err = setup.run("status", "--catalogue", support.windows_path(setup.file))
    checks.that(code == 3 and "catalogues" in err, "what is missing is named", err)
    setup.write()
    code, _, err = setup.run("install", "--catalogue", support.windows_path(setup.file), "--library", "missing.dll")
    checks.that(code == 4 and "missing.dll" in err, "no such library", err)
    # Wine takes the calls and does nothing, or the user has no rights: both leave everything as it is.
    code, out, err = setup.run("install")
    checks.that(code in (1, 5) and err, "Wine's own catalogue is not changed", f"{code} {out}{err}")
    code, out, err = setup.run("copy", "--catalogue", support.windows_path(setup.file))
    entries = setup.content()["catalogues"][setup.kind]["entries"]
    checks.that(code == 0 and entries, "the platform's catalogue can be copied", f"{code} {out}{err}")
    left = [path for path in setup.runner.bin.glob("vyr_setup.journal*")]
    checks.equal(left, [], "no journal is left")


def main():
    stage = restarts.Stage(relay_bench.parse_arguments())
    setup = Setup(stage, stage.runner.folder)
    with stage.bench.running:
        check_round_trip(stage, setup)
        check_repair(stage, setup)
        check_other_provider(stage, setup)
        check_refusals(stage, setup)
    stage.checks.end()


if __name__ == "__main__":
    main()
