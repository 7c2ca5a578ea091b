"""Chromium without a screen, driven through drive.js."""
import contextlib
import json
import pathlib
import shutil
import subprocess

import served
import javascript  # in the path since served was read

BROWSERS = ("chromium", "chromium-browser", "google-chrome")


class Browser:
    """One page. Skips the test where there is no browser or no driver."""

    def __init__(self):
        program = next(filter(None, map(shutil.which, BROWSERS)), None)
        if program is None:
            served.skip("no Chromium here")
        folder = javascript.parts_or_skip("browser")
        self.process = subprocess.Popen(["node", served.HERE / "drive.js", folder, program], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def call(self, **command):
        self.process.stdin.write(json.dumps(command) + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        assert answer, f"the driver ended at {command}"
        answer = json.loads(answer)
        assert "error" not in answer, (command, answer)
        return answer.get("value")

    def open(self, url):
        self.call(open=url)

    def value(self, expression):
        return self.call(value=expression)

    def comes(self, expression, patience_s=20):
        """Waits until the expression is true."""
        return served.wait_until(lambda: self.value(expression), patience_s)

    def picture(self, path, width=1400, theme="light"):
        self.call(picture=str(pathlib.Path(path).resolve()), width=width, theme=theme)

    def asked_for(self):
        return self.call(asked=True)

    def complaints(self):
        """Exceptions, and what the console has, such as the browser's own notes of a breach of the page's policy."""
        return self.call(complaints=True)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        with contextlib.suppress(OSError):
            self.process.stdin.close()
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
