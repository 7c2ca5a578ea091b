"""Communication with running programs: sending them lines and waiting for their output."""

import contextlib
import queue
import subprocess
import threading
import time

import support

PATIENCE_S = 40  # longer than the interval at which the tables are read again
POLL_S = 0.2


def wait_until(condition):
    """Polls the condition, and returns its last value."""
    end = time.monotonic() + PATIENCE_S
    while not (found := condition()) and time.monotonic() < end:
        time.sleep(POLL_S)
    return found


class Conversation:
    """A Windows program whose output is read while it runs; or a native one, without `through`."""

    def __init__(self, command, folder, through=(support.WINE,)):
        self.process = subprocess.Popen(
            [*through, *map(str, command)], cwd=folder, text=True, encoding="utf-8",
            errors="replace", bufsize=1, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )  # fmt: skip
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\r\n"))

    def say(self, text):
        with contextlib.suppress(OSError):  # it has ended; the missing answer will be noticed
            self.process.stdin.write(text + "\n")

    def line_with(self, words, patience_s=PATIENCE_S):
        """The next line that contains these words; empty if there is none in time."""
        end = time.monotonic() + patience_s
        with contextlib.suppress(queue.Empty):
            while True:
                line = self.lines.get(timeout=max(0, end - time.monotonic()))
                if words in line:
                    return line
        return ""

    def asked(self, text, answer, patience_s=PATIENCE_S):
        self.say(text)
        return self.line_with(answer, patience_s)

    def end(self):
        with contextlib.suppress(OSError):
            self.process.stdin.close()
        return self.process.wait(support.LONGEST_RUN_S)
