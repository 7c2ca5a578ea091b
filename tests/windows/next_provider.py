"""If the next provider fails, is incomplete or is missing, a program gets the platform's errors for
that, and never crashes or hangs."""

import re

import support

FAILED_INIT = 10106
INVALID_TABLE = 10104

# next provider | result of the library's start | debugger output | error of the first socket
# A positive error of the next provider becomes 0 with an empty table. Winsock's own check of the table
# then makes the program's socket fail.
CASES = [
    ("failing", 0, "InitializeProvider failed: 10091", INVALID_TABLE),
    ("incomplete", FAILED_INIT, "InitLspChain: InitializeProvider failed: 10104", FAILED_INIT),
    ("no_entry", FAILED_INIT, "LoadProviderPath: GetProcAddress failed: 127", FAILED_INIT),
    (None, FAILED_INIT, "LoadProviderPath: LoadLibraryW failed: ", FAILED_INIT),
]


def main():
    arguments = support.parse_arguments()
    checks = support.Checks()
    runner = support.Runner(arguments)
    for name, start_result, words, error in CASES:
        module = arguments.probes / (f"next_{name}.dll" if name else "no_such_module.dll")
        for way in ("other", "served"):
            what = f"{name or 'missing'}, {way}"
            program = "net_probe.exe" if way == "served" else "program.exe"
            folder = runner.stage(arguments.probes / "by_name.exe", program)
            options = ["--next", support.windows_path(module)]
            result = runner.launch(folder, program, ["127.0.0.1", "9", "-test"], options)
            checks.that(words in result.debug_output(), f"{what}: trace", result.debug_output())
            starts = result.starts()
            checks.that(starts, f"{what}: a start was tried", result.errors)
            if starts:
                found = starts[0]["result"]
                # The host refuses an empty table, as Winsock does.
                wanted = INVALID_TABLE if start_result == 0 else start_result
                checks.equal(found, wanted, f"{what}: result of the start")
            checks.equal(result.code, 0, f"{what}: the program ends normally")
            checks.that(
                re.search(r"^connect: failed with \d+$", result.output, re.M),
                f"{what}: the program's calls fail",
                result.output,
            )
            checks.equal(
                first_socket_error(result.output), error, f"{what}: error of the first socket"
            )
    checks.end()


def first_socket_error(output):
    """The error of the first socket, which the probe prints; later calls have no socket."""
    found = re.search(r"^first socket: failed with (\d+)$", output, re.M)
    return int(found.group(1)) if found else None


if __name__ == "__main__":
    main()
