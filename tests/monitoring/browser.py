"""Chromium without a screen, driven over its debugging pipe."""
import contextlib
import itertools
import json
import os
import shutil
import subprocess
import tempfile
import threading

import served

BROWSERS = ("chromium", "chromium-browser", "google-chrome")


class Browser:
    """One page. `events` has all that the browser has told of it, in order."""

    def __init__(self):
        program = next(filter(None, map(shutil.which, BROWSERS)), None)
        if program is None:
            served.skip("no Chromium here")
        self.profile = tempfile.TemporaryDirectory(prefix="vyr-live-", ignore_cleanup_errors=True)
        commands, self.commands = os.pipe()
        answers, told = os.pipe()
        # The browser reads from 3 and writes to 4.
        script = f'exec "$0" "$@" 3<&{commands} 4>&{told}'
        self.process = subprocess.Popen(
            ["bash", "-c", script, program, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--remote-debugging-pipe",
             "--window-size=1400,900", f"--user-data-dir={self.profile.name}", "about:blank"],
            pass_fds=(commands, told), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(commands)
        os.close(told)
        self.numbers, self.answers, self.events, self.session = itertools.count(1), {}, [], None
        threading.Thread(target=self._read, args=(answers,), daemon=True).start()

    def _read(self, answers):
        rest = b""
        while data := os.read(answers, 65536):
            *messages, rest = (rest + data).split(b"\0")
            for message in map(json.loads, messages):
                if "id" in message:
                    self.answers[message["id"]] = message
                else:
                    self.events.append(message)

    def call(self, method, **params):
        number = next(self.numbers)
        message = {"id": number, "method": method, "params": params}
        if self.session is not None:
            message["sessionId"] = self.session
        os.write(self.commands, json.dumps(message).encode() + b"\0")
        answer = served.wait_until(lambda: self.answers.pop(number, None))
        assert answer and "result" in answer, (method, answer)
        return answer["result"]

    def open(self, url):
        page = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=page, flatten=True)["sessionId"]
        for domain in ("Runtime", "Log", "Network", "Page"):
            self.call(domain + ".enable")
        self.call("Page.navigate", url=url)
        assert self.comes('document.readyState === "complete"'), url

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        assert "exceptionDetails" not in result, (expression, result)
        return result["result"].get("value")

    def comes(self, expression, patience_s=20):
        """Waits until the expression is true."""
        return served.wait_until(lambda: self.value(expression), patience_s)

    def asked_for(self):
        return [event["params"]["request"]["url"] for event in list(self.events)
                if event["method"] == "Network.requestWillBeSent"]

    def complaints(self):
        """Exceptions, and what the browser itself notes, such as a breach of the page's policy."""
        return [event for event in list(self.events)
                if event["method"] == "Runtime.exceptionThrown" or event["method"] == "Log.entryAdded"]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(timeout=10)
        self.profile.cleanup()

