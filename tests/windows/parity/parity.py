"""What programs rely on is the same with the library as without it, but for what is listed.

parity.exe prints over two hundred observations. It runs in five ways: alone, through the host with
the base provider alone, with the library as a program that is not served, as one that is, and as
one that is served with everything mended. Where it is not served, nothing may differ; where all is
mended, only what not_mended.toml names with a reason, and what is named there must differ.
docs/parity.md shows all that differs, and must be as the run says; with --write it is written.
"""

import concurrent.futures
import pathlib
import sys
import tomllib

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
import peers  # noqa: E402
import relay_bench  # noqa: E402
import support  # noqa: E402
import table  # noqa: E402

DOCUMENT = support.ROOT / "docs" / "parity.md"
NOT_MENDED = HERE / "not_mended.toml"
LEAST = 200  # observations
ATTEMPTS = 3  # a busy machine spoils one or the other
AT_ONCE = 3
LONGEST_S = 120

GAME = """
[[game]]
game_id = {number}
uin = '20001'
game_paths = ['{path}']
net_mode = ['TCP', 'UDP']
log_level = 4
log_path = '{logs}'
acc_mode = 1
mend = '{mend}'
"""
ROUTES = """
[[node]]
proxy_name = 'node one'
proxy_addr = '198.51.100.20'
proxy_port = 9000
proxy_idc = 1
section1_delay = 10
surport_isps = 0xffffffff

[[idc]]
game_idc = 1001
addresses = ['198.51.100.10', '198.51.100.11']

[[route]]
game_idc = 1001
entry_name = 'east'
direct_delay = 60
ref_default = { node = 'node one', decision = 'DECISION_ACCE', section2_delay = 12, last_node = 'node one' }
"""


class Stage:
    """The program in a folder for each way, the tables that serve two of them, and the peers."""

    def __init__(self, arguments):
        self.runner = support.Runner(arguments)
        program = arguments.probes / "parity.exe"
        names = {way: way.capitalize() + ".exe" for way in table.WAYS}
        self.paths = {way: self.runner.stage(program, name) / name for way, name in names.items()}
        logs = support.windows_path(self.runner.folder / "logs") + "\\"
        text = "".join(
            GAME.format(number=10001 + i, path=support.windows_path(self.paths[way]), logs=logs, mend=mend)
            for i, (way, mend) in enumerate((("served", "none"), ("mended", "all")))
        )
        text = (text + ROUTES).replace("{", "{{").replace("}", "}}")
        self.peers = (peers.Streams(), peers.Datagrams())
        self.bench = relay_bench.Bench(arguments, self.runner, [], tables=text)

    def run(self, way, subjects):
        """What the program said, by observation; of the given subjects or all."""
        path = self.paths[way]
        if way == "plain":
            words = [support.windows_path(path), *subjects]
        else:
            bare = ["--bare"] if way == "bare" else []
            words = [self.runner.launcher, *bare, "--", support.windows_path(path), *subjects]
        done = self.runner.wine(words, path.parent, timeout=LONGEST_S)
        said = done.stdout.decode("ascii", "replace").replace("\r", "")
        rows = dict(line.split("\t", 1) for line in said.splitlines() if "\t" in line)
        rows["program: exit code"] = str(done.returncode)
        return rows

    def look(self, subjects=()):
        with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
            columns = pool.map(lambda way: self.run(way, subjects), table.WAYS)
        return table.Table(dict(zip(table.WAYS, columns, strict=True)))


def look_until_as_before(stage, before):
    """All observations. Subjects that do not look as the document has them are looked at again."""
    found = stage.look()
    if before is None:
        return found
    for _ in range(ATTEMPTS - 1):
        changed = found.changed_subjects(before)
        if not changed:
            break
        print(f"once more: {', '.join(changed)}")
        found.take_better(stage.look(changed), changed, before)
    return found


def check(checks, found, reasons):
    checks.that(len(found.names) >= LEAST, f"{len(found.names)} observations")
    for row in found.differing("unserved"):
        if found.value(row, "unserved") != found.value(row, "bare"):
            checks.that(False, f"unserved: {row}", found.line(row))
    listed = {name for reason in reasons for name in reason["names"]}
    for row in found.names:
        differs = found.differs(row, "mended")
        if differs and row not in listed:
            checks.that(False, f"mended, and not in {NOT_MENDED.name}: {row}", found.line(row))
        elif row in listed:
            checks.that(differs, f"in {NOT_MENDED.name}, and no longer different: {row}", found.line(row))
    unknown = listed - set(found.names)
    checks.equal(sorted(unknown), [], f"named in {NOT_MENDED.name}, and not observed")


def main():
    arguments = support.parse_arguments(
        ("--node", {"type": pathlib.Path, "required": True}),
        ("--write", {"action": "store_true", "help": "write docs/parity.md"}),
    )
    checks = support.Checks()
    stage = Stage(arguments)
    reasons = tomllib.loads(NOT_MENDED.read_text())["reason"]
    before = None if arguments.write else table.read(DOCUMENT.read_text())
    with stage.bench.running:
        found = look_until_as_before(stage, before)
    text = table.document(found, reasons)
    if arguments.write:
        DOCUMENT.write_text(text)
    check(checks, found, reasons)
    checks.that(DOCUMENT.read_text() == text,
                f"docs/parity.md is not as things are; {sys.argv[0]} --write writes it",
                "\n".join(map(found.line, found.changed(before or {}))))  # fmt: skip
    asked = len(stage.bench.node.games())
    checks.that(asked > 0, "the node was asked")
    print(f"{len(found.names)} observations, the node was asked {asked} times")
    checks.end()


if __name__ == "__main__":
    main()
