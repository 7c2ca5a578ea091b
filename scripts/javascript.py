"""Scripts in JavaScript that tests run under Node.js, with what fetch_programs.sh fetches for them."""
import json
import pathlib
import shutil
import subprocess
import sys

FETCH = pathlib.Path(__file__).resolve().parent / "fetch_programs.sh"


class Missing(Exception):
    """What is not here and cannot be fetched."""


def parts(kind):
    """The folder with what `fetch_programs.sh --KIND` fetches."""
    if shutil.which("node") is None:
        raise Missing("no Node.js here")
    done = subprocess.run([FETCH, f"--{kind}"], capture_output=True, text=True)
    if done.returncode != 0:
        raise Missing(done.stderr.strip())
    return subprocess.run([FETCH, "--path"], capture_output=True, text=True, check=True).stdout.strip()


def parts_or_skip(kind):
    """The same, for a test that is nothing without them."""
    try:
        return parts(kind)
    except Missing as missing:
        print(f"skipped: {missing}")
        sys.exit(77)


def ask(script, asked, *arguments, timeout_s, env=None):
    """Gives the script `asked` as JSON, and returns what it prints as JSON."""
    done = subprocess.run(["node", script, *arguments], input=json.dumps(asked), text=True, capture_output=True,
                          timeout=timeout_s, env=env)
    if done.returncode != 0:
        raise SystemExit(f"{script} has failed:\n{done.stderr[-2000:]}")
    return json.loads(done.stdout)
