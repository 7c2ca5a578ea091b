"""A probe's output is the same, byte for byte, alone, under the bare host, and with the library,
served or not. With the library, its calls really go through the library."""

import difflib

import support


def main():
    arguments = support.parse_arguments(("words", {"nargs": "+"}))
    name, *extra = arguments.words
    checks = support.Checks()
    server = support.EchoServer()
    runner = support.Runner(arguments)
    program = arguments.probes / f"{name}.exe"
    results = {
        way: runner.run(way, program, [server.address, server.port, *extra])
        for way in support.WAYS
    }
    alone = results["none"]
    print(alone.output)
    checks.that(alone.output.count("\n") >= 2, "the probe alone has output", alone.errors)
    for way in ("bare", "other", "served"):
        result = results[way]
        difference = difflib.unified_diff(
            alone.output.splitlines(), result.output.splitlines(), "alone", way, lineterm=""
        )
        checks.that(result.output == alone.output, f"{way}: same output", "\n".join(difference))
        checks.equal(result.code, alone.code, f"{way}: same exit code")
        checks.equal(result.errors, alone.errors, f"{way}: same error output")
        checks.that(result.starts(), f"{way}: an entry was started")
    checks.equal(results["bare"].calls("library"), {}, "bare: nothing goes through the library")
    checks.equal(results["other"].calls("library"), {}, "other: the library takes no part")
    seen = results["served"].calls("library")
    for call in ("WSPSocket", "WSPCloseSocket"):
        if name != "exit_open":
            checks.that(call in seen, f"served: {call} goes through the library", str(seen))
    first = results["served"].starts()[:1]
    checks.equal(
        [start["replaced_entries"] for start in first],
        [support.REPLACED_ENTRIES],
        "served: the first table is hooked",
    )
    checks.end()


if __name__ == "__main__":
    main()
