"""The output of each probe is the same, byte for byte, alone, under the bare host, and with the library,
served or not. With the library, its calls really go through the library.

A probe is named with its argument, if it has one: exit_open=return."""

import difflib

import support


class Probe:
    def __init__(self, checks, words):
        self.name, *self.arguments = words.split("=")
        self.words = words
        self.checks = checks

    def run(self, runner, program, server):
        words = [server.address, server.port, *self.arguments]
        self.results = {way: runner.run(way, program, words) for way in support.WAYS}
        print(self.results["none"].output)

    def that(self, holds, what, detail=""):
        self.checks.that(holds, f"{self.words}: {what}", detail)

    def equal(self, actual, expected, what):
        self.checks.equal(actual, expected, f"{self.words}: {what}")

    def check_output(self):
        alone = self.results["none"]
        self.that(alone.output.count("\n") >= 2, "the probe alone has output", alone.errors)
        for way in ("bare", "other", "served"):
            result = self.results[way]
            difference = difflib.unified_diff(
                alone.output.splitlines(), result.output.splitlines(), "alone", way, lineterm=""
            )
            self.that(result.output == alone.output, f"{way}: same output", "\n".join(difference))
            self.equal(result.code, alone.code, f"{way}: same exit code")
            self.equal(result.errors, alone.errors, f"{way}: same error output")
            self.that(result.starts(), f"{way}: an entry was started")

    def check_calls(self):
        self.equal(self.results["bare"].calls("library"), {}, "bare: nothing goes through the library")
        self.equal(self.results["other"].calls("library"), {}, "other: the library takes no part")
        seen = self.results["served"].calls("library")
        for call in ("WSPSocket", "WSPCloseSocket"):
            if self.name != "exit_open":
                self.that(call in seen, f"served: {call} goes through the library", str(seen))
        first = self.results["served"].starts()[:1]
        self.equal(
            [start["replaced_entries"] for start in first],
            [support.REPLACED_ENTRIES],
            "served: the first table is hooked",
        )


def main():
    arguments = support.parse_arguments(("words", {"nargs": "+"}))
    checks = support.Checks()
    server = support.EchoServer()
    runner = support.Runner(arguments)
    for words in arguments.words:
        probe = Probe(checks, words)
        probe.run(runner, arguments.probes / f"{probe.name}.exe", server)
        probe.check_output()
        probe.check_calls()
    checks.end()


if __name__ == "__main__":
    main()
