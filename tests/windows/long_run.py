"""A short run of scripts/soak.sh --wine with a game that leaks: the leak is seen in the figures that it concerns, and
everything that has to happen in a long run happens. Ends by itself, as the game does."""

import json
import pathlib
import subprocess
import tempfile

import support

SECONDS = 6
LEAK_EVERY = 3  # of a dozen sockets a second, and fewer on a busy machine
LONGEST_S = 100
ATTEMPTS = 3
WINE_ENDED = "Wine's server has ended by itself"
# Of a leaked socket, the game's process has a descriptor, and a handle; its flow is never reported as ended.
LEAKED, NOT_LEAKED = ("descriptors", "handles"), ("threads", "mappings")
HAPPENED = ("flows with data", "answered", "streams", "reports", "tables", "watchers killed", "servers killed",
            "died with a mutex", "programs")  # fmt: skip
FEWEST_SAMPLES = 25


def run_until_wine_lasts(*command):
    """Wine's server may end before the time is over (docs/soak.md)."""
    for _ in range(ATTEMPTS):
        done = subprocess.run(
            list(map(str, command)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, timeout=LONGEST_S, check=False,
        )  # fmt: skip
        print(done.stdout)
        if WINE_ENDED not in done.stdout:
            break
    return done


def main():
    arguments = support.parse_arguments(("--node", {"type": pathlib.Path, "required": True}))
    if not arguments.node.exists():
        support.skip(f"no {arguments.node}; the posix preset builds it")
    checks = support.Checks()
    with tempfile.TemporaryDirectory() as folder:
        found, picture = pathlib.Path(folder, "found.json"), pathlib.Path(folder, "found.svg")
        done = run_until_wine_lasts(
            support.ROOT / "scripts/soak.sh", "--wine", "--minutes", SECONDS / 60, "--leak-every", LEAK_EVERY,
            "--build", arguments.node.parents[1], "--windows", arguments.bin.parent, "--json", found,
            "--picture", picture,
        )  # fmt: skip
        if done.returncode == 77:
            support.skip(done.stdout.strip())
        if not checks.that(found.exists(), "it writes what it has found"):
            checks.end()
        run = json.loads(found.read_text())
        checks.that(picture.read_text().count("grows") >= len(LEAKED), "the picture shows what grows")
    checks.equal(done.returncode, 1, "its exit code says that something grows")
    checks.that("wrong:" not in done.stdout, "nothing else is wrong")
    for name in LEAKED:
        checks.that(run["verdicts"][name]["grows"], f"{name} grow")
    for name in NOT_LEAKED:
        checks.that(not run["verdicts"][name]["grows"], f"{name} do not grow")
    for name in HAPPENED:
        checks.that(run["happened"].get(name), f"{name}: some")
    checks.that(run["happened"]["programs"] > run["happened"]["programs that failed"], "some do their work")
    checks.that(run["happened"]["node deaths"] + run["happened"]["node troubles"], "nodes are in trouble")
    checks.that(len(run["samples"]) >= FEWEST_SAMPLES, "it has samples", len(run["samples"]))
    checks.that(run["flows"]["open"], "the flows of leaked sockets are open")
    checks.end()


if __name__ == "__main__":
    main()
