"""The test bed: its addresses, its exit codes, its end, and two beds at once."""

import os
import shutil
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


def check_desktop(checks):
    """The process of Wine's desktop has no pipes of a test's, and stays, so that no program begins another one."""
    script = """$0 cmd /c exit; sleep 3
      for process in /proc/[0-9]*; do
        [ $process/ns/net -ef /proc/self/ns/net ] && grep -q "explorer[.]exe" $process/cmdline &&
          readlink $process/fd/[012]
      done"""
    said = bed("sh", "-c", script, support.WINE).stdout.split()
    checks.equal(said, ["/dev/null"] * 3, "what the desktop that stays has open")


def check_server_end(checks):
    """Programs do not outlive a Wine server that ends, for which they would wait forever, and the bed prints what
    it has said."""
    steps = ("mkfifo $VYR_BED_DIR/keys; exec 3<>$VYR_BED_DIR/keys",
             "$0 cmd /c 'echo begun & pause' <&3 & read go",
             "echo 'all is lost' >>$VYR_BED_DIR/wineserver.log",
             "WINEPREFIX=$VYR_WINEPREFIX wineserver -k9; wait $!; echo ended with $?")  # fmt: skip
    running = subprocess.Popen([BED, "sh", "-c", "; ".join(steps), support.WINE], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)  # fmt: skip
    begun = running.stdout.readline().strip()
    try:
        said, errors = running.communicate("go\n", timeout=30)
    except subprocess.TimeoutExpired:
        running.terminate()
        said, errors = running.communicate()
    checks.that(begun == "begun" and "ended with 137" in said, "a program ends with its server", f"{begun}\n{said}")
    checks.that("the Wine server says: all is lost" in errors, "the bed prints what the server says", errors)


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
    if shutil.which("wine"):
        check_desktop(checks)
        check_server_end(checks)

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
