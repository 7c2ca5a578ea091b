"""README's scripts run as they are written: each is taken from README's own text and goes into
`scripts/testbed bash` as if it were pasted, background processes included."""

import json
import pathlib
import re
import shutil
import subprocess
import tempfile

import support

LONGEST_S = 150


class Readme:
    def __init__(self, arguments):
        if arguments.bin.resolve() != support.ROOT / "build/windows-x86/bin":
            support.skip("README speaks of build/windows-x86")
        for name in ("vyr_node", "vyr_game"):
            if not (support.ROOT / "build/posix/bin" / name).exists():
                support.skip(f"no {name}; the posix preset builds it")
        self.checks = support.Checks()
        self.text = (support.ROOT / "README.md").read_text(encoding="utf-8")
        self.kept = pathlib.Path(tempfile.mkdtemp(prefix="vyr-readme-"))

    def script(self, heading):
        section = re.search(rf"^## {heading}\n(.*?)^## ", self.text, re.DOTALL | re.MULTILINE).group(1)
        scripts = re.findall(r"^```bash\n(.*?)^```$", section, re.DOTALL | re.MULTILINE)
        self.checks.equal(len(scripts), 1, f"{heading}: one script")
        return scripts[0]

    def paste(self, script, *files):
        """What the script prints, and these of the files that it leaves. The shell and what it starts
        share an input, as they do where a person pastes."""
        for name in files:
            script += f"cp {name} '{self.kept}'\n"
        done = subprocess.run(
            [support.ROOT / "scripts/testbed", "bash"], cwd=support.ROOT, input=script, text=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=LONGEST_S, check=False,
            encoding="utf-8", errors="replace",
        )  # fmt: skip
        if done.returncode == 77:
            support.skip(done.stdout.strip())
        print(done.stdout)
        self.checks.equal(done.returncode, 0, "every command that has to works")
        return done.stdout

    def kept_text(self, name):
        path = self.kept / name
        return path.read_text(encoding="utf-8") if path.exists() else ""


def games_of_node(text):
    events = [json.loads(line) for line in text.splitlines()]
    return {event.get("game") for event in events} - {None}


def check_using_it(readme):
    checks = readme.checks
    said = readme.paste(readme.script("Using it"), "run.html", "reports.txt", "node.jsonl", "games.toml")
    for words in ("games.toml: right, 1 game", "198.51.100.10:7000 UDP is accelerated: through 'node one'.",
                  "asked as C:\\vyr\\vyr_game.exe", "vyr_run: served as game 10001 (tables of games.toml)",
                  "run.html", "[vyr_game.exe]"):  # fmt: skip
        checks.that(words in said, f"it says {words!r}", said)
    checks.equal(games_of_node(readme.kept_text("node.jsonl")), {"198.51.100.10:7000"}, "the node's games")
    checks.that("198.51.100.10:7000" in readme.kept_text("reports.txt"), "the reports")
    page = readme.kept_text("run.html")
    checks.that("198.51.100.10:7000" in page and "node one" in page, "the page shows the flow and its node")


def check_without_a_client_program(readme, arguments):
    checks = readme.checks
    script = readme.script("Without a client program")
    delivered = "build/windows-x86/bin/vyr_lsp_test.dll"
    checks.that(delivered in script, "it names the library")
    if not (support.ROOT / delivered).exists():  # the option of the section is off in this build
        ours = arguments.probes.resolve().relative_to(support.ROOT) / "vyr_lsp_test.dll"
        script = script.replace(delivered, str(ours))
    mistyped = script.replace("net_mode=24\n", "net_mode=24\nnetmode=8\n")
    checks.that(mistyped != script, "a key that is mistyped")
    for pasted in (script, mistyped):
        said = readme.paste(pasted, '"$VYR_BED_DIR/node.jsonl"', "trace.jsonl")
        games = games_of_node(readme.kept_text("node.jsonl"))
        checks.equal(games, {"198.51.100.10:7000"}, "the node's games")
        checks.that("which has tables of its own or none" in said, "vyr_run says what it knows", said)
        checks.that("ip=198.51.100.20, port=9000, net_mode=24" in said, "the file is read", said)
        checks.equal("unknown key=netmode" in said, pasted == mistyped, "an unknown key is named")
        checks.that("[game.exe][P" in said, "the log is beside the program", said)


def main():
    arguments = support.parse_arguments()
    readme = Readme(arguments)
    try:
        check_using_it(readme)
        check_without_a_client_program(readme, arguments)
    finally:
        shutil.rmtree(readme.kept)
    readme.checks.end()


if __name__ == "__main__":
    main()
