"""The log at the end of a process: collected lines are written to the file when the process ends. A
process that ends while its other threads write lines ends at once, and its file has whole lines."""

import re
import socket

import gate
import support

EXIT_CODE = 7
RUNS = 4  # where the threads are when they are killed differs from run to run
WHOLE_LINE = re.compile(rb"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[\d+\]\[\d\]\[lsp\][^\n]+\n")


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def run(bench, checks, what, threads):
    """Returns the content of the single log file of the run."""
    folder = bench.runner.stage(bench.arguments.probes / "log_end.exe", "Game.exe")
    logs = folder / "logs"
    port = free_port()
    with bench.client(gate.game_entry(folder / "Game.exe", logs)):
        # A process that hangs when it ends exceeds the time limit of the launch.
        words = [bench.server.address, bench.server.port, threads, port]
        result = bench.runner.launch(folder, "Game.exe", map(str, words))
    checks.equal(result.code, EXIT_CODE, f"{what}: its exit code")
    checks.that("bind: 0" in result.output, f"{what}: its last call worked", result.output)
    files = list(logs.glob("*.log"))
    checks.equal(len(files), 1, f"{what}: one log file")
    return (files[0].read_bytes() if files else b""), port


def main():
    arguments = support.parse_arguments()
    support.needs_bed()
    bench = gate.Gate(arguments)
    checks = bench.checks
    text, port = run(bench, checks, "alone", 0)
    last = f"WSPBind: ret=0, err=0, port={port}, ".encode()
    checks.that(last in text, "alone: the last line is in the file", text[-500:].decode("latin-1"))
    for i in range(RUNS):
        text, _ = run(bench, checks, f"busy {i}", 6)
        checks.that(len(text) > 1024, f"busy {i}: lines were written", str(len(text)))
        rest = WHOLE_LINE.sub(b"", text)
        checks.equal(rest, b"", f"busy {i}: every line is whole")
    checks.end()


if __name__ == "__main__":
    main()
