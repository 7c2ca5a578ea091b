"""vyr_run itself: exit codes, errors that name the file, and the passing on of arguments and streams."""

import os
import shutil
import subprocess

import support


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    run = runner.launcher
    cmd = "C:\\windows\\system32\\cmd.exe"

    def launch(*words, **options):
        done = runner.wine([run, *words], runner.folder, **options)
        return done.returncode, done.stdout.decode(), done.stderr.decode()

    code, out, _ = launch("--help")
    checks.that(code == 0 and "--bare" in out, "--help", out)
    code, out, _ = launch("--version")
    checks.equal((code, out.strip()), (0, f"vyr_run {support.project_version()}"), "--version")
    for words, wanted in (("--log",), "--log needs a value"), (("--log", "6", "x"), "a level from 0 to 5"):
        code, _, err = launch(*words)
        checks.that(code == 120 and wanted in err, f"{words}", err)
    code, _, err = launch()
    checks.that(code == 120 and "no program" in err, "no program", err)
    code, _, err = launch("--nonsense", "x")
    checks.that(code == 120 and "--nonsense" in err, "unknown option", err)
    code, _, err = launch("--trace")
    checks.that(code == 120 and "--trace needs a value" in err, "option without its value", err)
    code, _, err = launch("--bare", "--library", "x.dll", cmd)
    checks.that(code == 120 and "--bare" in err, "--bare with a library", err)
    code, _, err = launch("--guids")
    checks.that(code == 120 and "--guids needs a value" in err, "choice without its value", err)
    code, _, err = launch("--cleanup", "never", "x")
    checks.that(code == 120 and "--cleanup is before or after" in err, "invalid choice", err)
    code, _, err = launch("no_such_program")
    checks.that(code == 127 and "no_such_program" in err, "program not found", err)
    text = runner.folder / "text.exe"
    text.write_text("not a program")
    code, _, err = launch(support.windows_path(text))
    checks.that(code == 126 and "text.exe" in err, "not a program", err)
    code, _, err = launch(support.windows_path(runner.library))
    checks.that(code == 126, "a DLL is not a program", err)
    code, _, err = launch("--library", "missing.dll", cmd, "/c", "exit")
    checks.that(code == 122 and "missing.dll" in err, "library not found", err)
    code, _, err = launch("--library", support.windows_path(text), cmd, "/c", "exit")
    checks.that(code == 122 and "text.exe" in err, "library is not a module", err)
    code, _, err = launch("--trace", "Z:\\no\\such\\folder\\t", "--bare", cmd, "/c", "exit 3")
    checks.that(code == 124 and "folder" in err, "trace cannot be written", err)
    lonely = runner.folder / "lonely"
    lonely.mkdir()
    shutil.copy(run, lonely)
    done = runner.wine([lonely / run.name, "--bare", cmd, "/c", "exit"], lonely)
    checks.equal(done.returncode, 121, "no host beside vyr_run")

    for code_wanted in (0, 1, 42, 255):
        code, _, _ = launch("--bare", cmd, "/c", f"exit {code_wanted}")
        checks.equal(code, code_wanted, "the program's exit code")
    code, out, err = launch("--bare", "cmd", "/c", "echo out& echo err 1>&2")
    checks.that("out" in out and "err" in err, "output and errors pass through", out + err)
    done = subprocess.run(
        [support.WINE, run, "--bare", support.windows_path(arguments.probes / "print_arguments.exe"), "-"],
        input=b"passed in",
        capture_output=True,
        timeout=support.LONGEST_RUN_S,
        cwd=runner.folder,
        check=False,
    )
    checks.that(b"input: passed in" in done.stdout, "input passes through", str(done))

    # The program gets its command line unchanged.
    folder = runner.folder / "Ordner mit Ümläuten 漢字"
    folder.mkdir()
    program = folder / "print args.exe"
    shutil.copy(arguments.probes / "print_arguments.exe", program)
    words = ["a b", 'q"uote', "back\\slash\\", "", "ünï漢", "--bare", "*?"]
    alone = runner.wine([support.windows_path(program), *words], folder)
    code, out, err = launch("--bare", "--", support.windows_path(program), *words)
    checks.equal(out, alone.stdout.decode(), "arguments and paths of any kind")
    checks.that("漢" in out and out.count("\n") == len(words) + 1, "all arguments are there", out)
    os.environ["VYR_SOMETHING"] = "kept"
    code, out, _ = launch("--bare", cmd, "/c", "set")
    checks.that("VYR_SOMETHING=kept" in out, "the environment passes through", out)
    checks.end()


if __name__ == "__main__":
    main()
