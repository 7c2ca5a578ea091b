#!/usr/bin/env python3
"""The live page in a browser, while reports come in.

usage: check_live_page.py VYR_CLIENT
"""
import sys

import served
from browser import Browser
from served import Checks, Client, sample_run

ROWS = 'document.querySelectorAll("#figures tbody tr").length'
TEXT = "document.body.innerText"
STATE = 'document.getElementById("live").textContent'


def follow(checks, program, page):
    at = program.served.at
    page.open(f"http://{at}/")
    checks.that(page.comes(f'document.getElementById("live") !== null && {STATE}.startsWith("Live:")'),
                "the page is live")
    checks.that("Nothing was reported" in page.value(TEXT), "nothing has come yet", page.value(TEXT))
    page.value("window.sameDocument = true; 0")

    run = sample_run.reports()
    half = next(i for i, report in enumerate(run) if report["time"] > sample_run.START + 30000)
    program.feed(run[:half])
    checks.that(page.comes(f'{TEXT}.includes("198.51.100.10:7001")'), "the first reports are drawn")
    rows = page.value(ROWS)
    before = page.value(TEXT)
    checks.that(rows >= 4, "a row a flow", rows)
    page.value('document.getElementById("filter").focus(); 0')
    program.feed(run[half:])
    checks.that(page.comes(f"{TEXT} !== {served.json.dumps(before)}"), "more reports are drawn")
    checks.that(page.comes('reader.data.flows.some(flow => flow.ended)'), "up to the end of a flow")
    checks.that(page.value('document.activeElement.id === "filter"'), "the reader's place is kept")
    checks.that(page.value("window.sameDocument === true"), "without loading the page again")

    program.feed(sample_run.one_flow("late one", number=77, port=7777))
    checks.that(page.comes(f'{TEXT}.includes("198.51.100.10:7777")'), "a flow that begins later is drawn")
    checks.that(page.value(ROWS) > rows, "in a row of its own", page.value(ROWS))

    asked = page.asked_for()
    checks.that(set(asked) == {f"http://{at}/", f"http://{at}/events"}, "it asks for nothing else", set(asked))
    checks.that(asked.count(f"http://{at}/events") == 1, "one stream is enough", asked)
    checks.that(not page.complaints(), "the browser has nothing to complain of", page.complaints())


def check_policy(checks, page):
    """The page could not reach anybody else if it tried."""
    for attempt in ('fetch("http://127.0.0.1:9/")', 'fetch("https://example.com/")'):
        page.value(f"window.reached = null; {attempt}.then(() => reached = true, () => reached = false); 0")
        checks.that(page.comes("reached !== null") and page.value("reached") is False, f"{attempt} fails")
    refused = [entry for entry in page.complaints() if "Content Security Policy" in served.json.dumps(entry)]
    checks.that(len(refused) >= 2, "because its policy forbids it", page.complaints())


def main():
    checks = Checks()
    with Client(sys.argv[1]) as program, Browser() as page:
        follow(checks, program, page)
        check_policy(checks, page)
        program.end()
        checks.that(page.comes(f'{STATE}.startsWith("Not live:")'), "it says when it is no longer live",
                    page.value(STATE))
        checks.that("198.51.100.10:7777" in page.value(TEXT), "and what it has shown stays")
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    main()
