"""The test bed: its addresses, its exit codes, its end, and two beds at once."""

import os
import signal
import subprocess
import sys
import time

import support

BED = sys.argv[1]


def bed(*command, **options):
    return subprocess.run(
        [BED, *command], capture_output=True, text=True, timeout=60, check=False, **options
    )


def has_ended(pid):
    """Gone, or a zombie that its new parent has not reaped yet."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as file:
            return file.read().rsplit(")", 1)[1].split()[0] == "Z"
    except FileNotFoundError:
        return True


def opened(pid):
    for descriptor in os.listdir(f"/proc/{pid}/fd"):
        try:
            yield os.readlink(f"/proc/{pid}/fd/{descriptor}")
        except OSError:
            pass  # closed meanwhile


def check_hold(checks):
    """The number of a namespace is free for the next bed once nothing holds it any more, and by that
    number a bed finds its processes. So the bed holds its namespace from before the command begins."""
    running = subprocess.Popen([BED, "sh", "-c", "readlink /proc/self/ns/net; read wait"],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)  # fmt: skip
    namespace = running.stdout.readline().strip()
    checks.that(namespace in opened(running.pid), "a bed holds its namespace open", namespace)
    running.communicate("\n", timeout=30)


def main():
    checks = support.Checks()
    probe = bed("true")
    if probe.returncode == 77:
        support.skip(probe.stderr.strip())
    checks.equal(probe.returncode, 0, "exit code 0")
    checks.equal(bed("sh", "-c", "exit 42").returncode, 42, "exit code of the command")
    checks.equal(bed("/no/such/command").returncode, 127, "exit code of a missing command")
    checks.that("198.51.100.10" in bed("--help").stdout, "--help lists the addresses")
    checks.equal(bed("cat", input="through").stdout, "through", "input and output pass through")
    devices = bed("ip", "-o", "link").stdout
    checks.that(devices.count("\n") == 1 and "lo:" in devices, "loopback is all there is", devices)
    source = bed("ip", "route", "get", "198.51.100.20").stdout
    checks.that("src 198.51.100.1 " in source, "an unbound socket has the player's address", source)
    checks.that(bed("ip", "route", "get", "192.0.2.1").returncode != 0, "nothing leaves the bed")

    # Processes that the command leaves behind are ended, and no others.
    bystander = subprocess.Popen(["sleep", "61"])
    left = bed("sh", "-c", "setsid sleep 62 >/dev/null 2>&1 & echo $!").stdout.strip()
    checks.that(left and has_ended(left), "processes left behind are ended")
    checks.that(bystander.poll() is None, "other processes keep running")
    bystander.kill()
    bystander.wait()

    check_hold(checks)

    # Two beds at once, one of which is interrupted.
    first = subprocess.Popen([BED, "sleep", "63"])
    second = subprocess.Popen([BED, "sh", "-c", "sleep 1; exit 5"])
    time.sleep(0.5)  # makes an overlap likely; the checks hold without one, too
    first.send_signal(signal.SIGTERM)
    checks.equal(first.wait(30), 143, "exit code of an interrupted bed")
    checks.equal(second.wait(30), 5, "the other bed is not affected")
    checks.end()


if __name__ == "__main__":
    main()
