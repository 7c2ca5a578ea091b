"""Programs that serve something, and what they answer."""
import contextlib
import http.client
import json
import pathlib
import subprocess
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
TIMEOUT_S = 60
POLL_S = 0.05
# Where Debian's package is, if the interpreter is another one.
sys.path.append("/usr/lib/python3/dist-packages")
sys.path += [str(HERE.parent / "page"), str(HERE.parents[1] / "scripts")]


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


try:
    from prometheus_client.parser import text_string_to_metric_families
except ImportError:
    skip("no python3-prometheus-client here")

from checks import Checks  # noqa: E402,F401
import sample_run  # noqa: E402,F401


def wait_until(condition, patience_s=TIMEOUT_S):
    """Polls the condition, and returns its last value."""
    end = time.monotonic() + patience_s
    while not (found := condition()) and time.monotonic() < end:
        time.sleep(POLL_S)
    return found


class Served:
    """What is served at an ADDRESS:PORT."""

    def __init__(self, at):
        self.at = at
        self.address, port = at.rsplit(":", 1)
        self.port = int(port)

    def ask(self, path, method="GET", **headers):
        """(status, headers, body); a header that is None is left out."""
        wanted = {"Host": self.at, **{name.replace("_", "-"): value for name, value in headers.items()}}
        connection = http.client.HTTPConnection(self.address, self.port, timeout=TIMEOUT_S)
        with contextlib.closing(connection):
            connection.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
            for name, value in wanted.items():
                if value is not None:
                    connection.putheader(name, value)
            connection.endheaders()
            answer = connection.getresponse()
            return answer.status, dict(answer.getheaders()), answer.read().decode("utf-8")

    def status(self, path, method="GET", **headers):
        return self.ask(path, method, **headers)[0]

    def health(self):
        """(status, object)"""
        status, _, body = self.ask("/health")
        return status, json.loads(body)

    def metrics(self):
        return Metrics(self.ask("/metrics")[2])


class Metrics:
    """The samples by name and labels, as Prometheus's parser reads them."""

    def __init__(self, text):
        self.text = text
        self.families = list(text_string_to_metric_families(text))
        self.samples = {}
        self.twice = []
        for family in self.families:
            for sample in family.samples:
                key = sample.name, frozenset(sample.labels.items())
                if key in self.samples:
                    self.twice.append(key)
                self.samples[key] = sample.value

    def value(self, name, **labels):
        """The value of exactly that sample. None: there is none."""
        return self.samples.get((name, frozenset(labels.items())))

    def sum(self, name, **labels):
        """Of all samples that have these labels, whatever else they have."""
        return sum(value for (other, of), value in self.samples.items()
                   if other == name and set(labels.items()) <= of)

    def names(self):
        """As queries use them."""
        return {family.name + ("_total" if family.type == "counter" else "") for family in self.families}

    def labels_of(self, name):
        return {label for (other, of) in self.samples if other == name for label, _ in of}

    def check(self, checks):
        """The rules of Prometheus for names, types and help."""
        checks.that(self.families, "there are metrics")
        checks.that(not self.twice, "no sample is there twice", self.twice)
        names = [family.name for family in self.families]
        checks.that(len(set(names)) == len(names), "no family is there twice", names)
        for family in self.families:
            checks.that(family.name.startswith("vyr_"), f"{family.name} has the prefix")
            checks.that(family.documentation.endswith("."), f"{family.name} has help", family.documentation)
            checks.that(family.type in ("counter", "gauge"), f"{family.name} has a type", family.type)
            wanted = family.name + ("_total" if family.type == "counter" else "")
            checks.that({s.name for s in family.samples} <= {wanted}, f"{family.name} is named by its type",
                        family.samples)
            checks.that(not family.name.endswith(("_ms", "_milliseconds", "_kb", "_percent", "_total")),
                        f"{family.name} has a base unit")


class Program:
    """A native program that serves, with the lines it has printed."""

    def __init__(self, *command, feed=False):
        self.lines = []
        self.process = subprocess.Popen(list(map(str, command)), text=True, stdout=subprocess.PIPE,
                                        stdin=subprocess.PIPE if feed else subprocess.DEVNULL)
        first = self.process.stdout.readline()
        threading.Thread(target=self._read, daemon=True).start()
        self.first = first.strip()
        self.served = Served(self.where())

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line)

    def feed(self, reports):
        for report in reports:
            self.process.stdin.write(json.dumps(report) + "\n")
        self.process.stdin.flush()

    def end(self):
        self.process.terminate()
        return self.process.wait(timeout=TIMEOUT_S)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait(timeout=TIMEOUT_S)


class Client(Program):
    """`vyr_client watch --serve`, fed with reports through a pipe."""

    def __init__(self, program, *options):
        super().__init__(program, "watch", "--from", "-", "--serve", "127.0.0.1:0", *options, feed=True)

    def where(self):
        said, url = self.first.split()
        assert said == "serving", self.first
        return url.removeprefix("http://").removesuffix("/")

    def has(self, count):
        """Waits until that many reports have been taken in."""
        return wait_until(lambda: self.served.health()[1]["reports"] == count)


class Node(Program):
    def __init__(self, program, *options):
        super().__init__(program, "--listen", "127.0.0.1:0", "--control", "127.0.0.1:0",
                         "--metrics", "127.0.0.1:0", *options)

    def where(self):
        self.listening = json.loads(self.first)
        return self.listening["metrics"]
