"""What programs rely on is the same with the library as without it, but for what is listed.

parity.exe prints over two hundred observations. It runs in five ways: alone, through the host with
the base provider alone, with the library as a program that is not served, as one that is, and as
one that is served with everything mended. Where it is not served, nothing may differ; where all is
mended, only what not_mended.toml names with a reason, and what is named there must differ.
docs/parity.md shows all that differs, and must be as the run says; with --write it is written.
"""

import concurrent.futures
import os
import pathlib
import subprocess
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
ATTEMPTS = 4  # a busy machine spoils one or the other
AT_ONCE = 2  # ways; one Wine server serves them all
AT_ONCE_CALM = 1
LONGEST_S = 170
# What the log says of a process that goes direct.
TELLING = ("has no room", "was not free within", "CheckAndInit failed", "result=false", "result=true")

GAME = relay_bench.GAME + """mend = '{mend}'
# On a busy machine a node may take longer than usual, and what it serves is compared here.
next_node_ms = 5000
direct_ms = 5000
node_rest_ms = 1
"""
ROUTES = relay_bench.ROUTES.replace("['198.51.100.10']", "['198.51.100.10', '198.51.100.11']")


class Stage:
    """The program in a folder for each way, and the tables that serve two of them, for one look."""

    def __init__(self, arguments):
        self.runner = support.Runner(arguments)
        program = arguments.probes / "parity.exe"
        names = {way: way.capitalize() + ".exe" for way in table.WAYS}
        self.paths = {way: self.runner.stage(program, name) / name for way, name in names.items()}
        logs = support.windows_path(self.runner.folder / "logs") + "\\"
        text = "".join(
            GAME.format(number=10001 + i, games=f"'{support.windows_path(self.paths[way])}'",
                        protocols=["TCP", "UDP"], log_level=4, logs=logs, mend=mend)  # fmt: skip
            for i, (way, mend) in enumerate((("served", "none"), ("mended", "all")))
        )
        text = text.replace("{", "{{").replace("}", "}}")  # nothing is left to be put in
        self.bench = relay_bench.Bench(arguments, self.runner, [], tables=text + ROUTES)

    def run(self, way, words):
        """What the program said, by observation."""
        path = self.paths[way]
        command = [support.windows_path(path), *words]
        if way != "plain":
            bare = ["--bare"] if way == "bare" else []
            command = [self.runner.launcher, *bare, "--", *command]
        try:
            done = self.runner.wine(command, path.parent, timeout=LONGEST_S)
            code, output = done.returncode, done.stdout
        except subprocess.TimeoutExpired as late:
            code, output = "none", late.stdout or b""
        said = output.decode("ascii", "replace").replace("\r", "")
        rows = dict(line.split("\t", 1) for line in said.splitlines() if "\t" in line)
        rows["program: exit code"] = str(code)
        return rows

    def look(self, words_of_ways, at_once):
        """The columns of these ways, each with its words for the program."""
        ways = list(words_of_ways)
        with concurrent.futures.ThreadPoolExecutor(at_once) as pool:
            columns = pool.map(lambda way: self.run(way, words_of_ways[way]), ways)
            return dict(zip(ways, columns, strict=True))


    def state(self):
        """What serves the program, and what the library wrote, in a few lines."""
        client, node = self.bench.client.process, self.bench.node.process
        yield f"client: exit {client.poll()}, said {list(self.bench.client.lines.queue)[-4:]}"
        yield f"node: exit {node.poll()}, asked {len(self.bench.node.games())} times"
        for log in sorted(self.bench.logs.glob("*.log")):
            text = log.read_bytes().decode("gbk", "replace")
            counts = {words: text.count(words) for words in TELLING if words in text}
            yield f"{log.name}: {len(text)} characters, {counts}, ends {text.splitlines()[-2:]}"


def look(arguments, words_of_ways, at_once):
    """The columns of these ways, how often the node was asked, and what is to be known where they
    are not as they should be."""
    stage = Stage(arguments)
    with stage.bench.running:
        return stage.look(words_of_ways, at_once), len(stage.bench.node.games()), [*stage.state()]


def end_all_programs():
    """Ends what an earlier look may have left behind. The next program starts Wine anew."""
    environment = {**os.environ, "WINEPREFIX": os.environ["VYR_WINEPREFIX"]}
    pathlib.Path(os.environ["VYR_BED_DIR"], "wine-started").unlink(missing_ok=True)  # first, see scripts/wine
    subprocess.run(["wineserver", "-k"], env=environment, check=False)
    subprocess.run(["wineserver", "-w"], env=environment, check=False, timeout=LONGEST_S)


def look_until_as_before(arguments, before):
    """All observations. What is not as the document has it is looked at again, more calmly and with
    everything started anew."""
    columns, asked, state = look(arguments, dict.fromkeys(table.WAYS, []), AT_ONCE)
    found, states = table.Table(columns), [state]
    for _ in range(ATTEMPTS - 1):
        changed = found.changed_subjects(before)
        if not changed:
            break
        print("once more:", "; ".join(f"{way}: {', '.join(names)}" for way, names in changed.items()))
        words = {way: ["calm", *subjects] for way, subjects in changed.items()}
        end_all_programs()
        columns, _, state = look(arguments, words, AT_ONCE_CALM)
        states.append(state)
        found.take_better(columns, before)
    return found, asked, states


def check_way(checks, found, way, reasons):
    """What differs is listed, and what is listed differs."""
    listed = {name for reason in reasons if way in reason.get("ways", ["mended"]) for name in reason["names"]}
    for name in found.names:
        differs = found.differs(name, way) and found.value(name, way) != found.value(name, "bare")
        if differs != (name in listed):
            what = "no longer differs, and is" if name in listed else "differs, and is not"
            checks.that(False, f"{way}: {name}: {what} in {NOT_MENDED.name}", found.line(name))
    unknown = listed - set(found.names)
    checks.equal(sorted(unknown), [], f"{way}: in {NOT_MENDED.name}, and not observed")


def check(checks, found, reasons):
    checks.that(len(found.names) >= LEAST, f"{len(found.names)} observations")
    check_way(checks, found, "unserved", reasons)
    check_way(checks, found, "mended", reasons)


def main():
    arguments = support.parse_arguments(
        ("--node", {"type": pathlib.Path, "required": True}),
        ("--write", {"action": "store_true", "help": "write docs/parity.md"}),
    )
    checks = support.Checks()
    reasons = tomllib.loads(NOT_MENDED.read_text())["reason"]
    before = table.read(DOCUMENT.read_text()) if DOCUMENT.exists() else {}
    servers = (peers.Streams(), peers.Datagrams())  # they serve as long as they are held
    found, asked, states = look_until_as_before(arguments, before)
    text = table.document(found, reasons)
    if arguments.write:
        DOCUMENT.write_text(text)
    check(checks, found, reasons)
    checks.that(DOCUMENT.read_text() == text,
                f"docs/parity.md is not as things are; {sys.argv[0]} --write writes it",
                "\n".join(map(found.line, [name for name, _ in found.changed(before)])))  # fmt: skip
    checks.that(asked > 0, "the node was asked")
    print(f"{len(found.names)} observations in {len(states)} looks, the node was asked {asked} times")
    if checks.failed:
        for number, state in enumerate(states, 1):
            print(f"look {number}:", *state, sep="\n  ")
    del servers
    checks.end()


if __name__ == "__main__":
    main()
