#!/usr/bin/env python3
"""Draws pages of made-up runs and looks at them in a browser without a screen.

usage: check_page.py VYR_CLIENT OUT_DIR

Kept in OUT_DIR: the made-up runs, their pages, and the browser's pictures of them: run-light.png,
run-dark.png, run-narrow.png, run-narrow-dark.png, many.png and others.
Exit code 77 where there is no browser or no driver for it, or the program was built without the chart
library.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

import sample_run
from checks import Checks

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "scripts"))
import javascript  # noqa: E402

BROWSERS = ("chromium", "chromium-browser", "google-chrome")
TIMEOUT_S = 120
# Two flows with four charts each, and the one of all flows.
CHARTS = 9
HOSTILE = "</script><img src=x onerror=\"document.title='taken'\">"  # a node's name
# What each chart must show, by its heading: the colours of its curves.
CURVES = {"Rate": ("sent", "recv"), "Delay of the probes": ("front",), "Probes": ("front", "straight"),
          "Delay of the way": ("way", "straight")}

# What must be read on the page of the made-up run: sums and of what they are, the last figures of a flow
# through two relays, the outcome of a flow without figures, a time counted from the run's start.
SAID = ("4 flows, 2 through nodes; 3 failed negotiations, 1 move to another node",
        "2 flows sent 494.7 kB, received 989.3 kB", "not what 1 flow carried after a move",
        "Of the 1 flow whose way was measured", "1 flow by the tables alone",
        "2 flows direct, with nothing to save", "direct, after 2 failed negotiations",
        "direct: the destination is inside", "1 min 35.9 s", "moved to node-2 198.51.100.21:9000",
        "curves end with the move", "vyr_game.exe, game 77", "32 bits", "trouble from 50 ms",
        # A path that would end the script, or be an element.
        "</script><b>log</b>")

# The rows of the flow that moved, each with what must stand in it and what must not.
PARTS = ((("0.8 s – 46 s", "node-1", "costs 47 ms", "127 ±15 ms", "15.0 %"), ("not reported",)),
         (("on trial: 198.51.100.22:9000", "did no better"), ("±", "%")),
         (("on trial: node-2", "took over"), ("±", "%")),
         (("46 s – 1 min 35.8 s", "node-2", "(saves 37 ms)", "not reported after the move"),
          ("15.0 %", "127", "costs")))

# How many pixels a curve or a mark has at least, a band of amplitude, the labels of an axis.
DRAWN = {"curve": 100, "mark": 20, "band": 1000, "labels": 100}
MOST_HEIGHT = 5000  # pixels, of a page of 200 flows


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def look(browser, folder, looks):
    """What each page shows, by name."""
    return javascript.ask(HERE / "look.js", looks, folder, browser, timeout_s=TIMEOUT_S)


def make(program, out, name, reports):
    """The page of these reports, the output of the program, and its exit code."""
    run, page = out / f"{name}.jsonl", out / f"{name}.html"
    sample_run.write(run, reports)
    made = subprocess.run([program, "watch", "--from", run, "--report", page], timeout=TIMEOUT_S,
                          capture_output=True, text=True)
    return page, made


def check_charts(checks, found):
    checks.that(len(found["charts"]) == CHARTS, "every chart is there", len(found["charts"]))
    for chart in found["charts"]:
        for heading, colours in CURVES.items():
            for name in colours if chart["title"].startswith(heading) else ():
                checks.that(chart["counts"][name] > DRAWN["curve"],
                            f"{chart['title']}: {name} is drawn", chart["counts"])
        if chart["title"].startswith(tuple(CURVES)):
            for part, least in (("heads", DRAWN["mark"]), ("labels", DRAWN["labels"]),
                                ("band", DRAWN["band"] if chart["title"] == "Delay of the probes" else 0)):
                checks.that(chart["counts"][part] >= least, f"{chart['title']}: has its {part}",
                            chart["counts"])
    whole = found["charts"][-1]["counts"]
    for kind in ("decision", "negotiation", "failure", "switch", "end"):
        checks.that(whole[kind] > DRAWN["mark"], f"the overview shows each {kind}", whole)
    backs = [c["counts"]["back"] > 100 for c in found["charts"] if c["title"] == "Delay of the probes"]
    checks.that(sorted(backs) == [False, True], "a second relay is drawn where there is one", backs)


def check_parts(checks, name, rows):
    """Each figure stands in the row of the node that it belongs to."""
    first = next((i for i, row in enumerate(rows) if ":7001" in row), len(rows))
    for place, (wanted, unwanted) in enumerate(PARTS, first + 1):
        row = rows[place] if place < len(rows) else ""
        for words in wanted:
            checks.that(words in row, f"{name}: row {place} says '{words}'", row)
        for words in unwanted:
            checks.that(words not in row, f"{name}: row {place} does not say '{words}'", row)


def check_run(checks, found):
    for name in ("light", "dark", "narrow", "narrow-dark"):
        page = found[name]
        check_charts(checks, page)
        checks.that(page["flows"] == 4, f"{name}: each flow is there", page["flows"])
        check_parts(checks, name, page["rows"])
        checks.that(page["fills"] == 5, f"{name}: the legend shows five colours", page["fills"])
        checks.that(page["overflow"] <= 0, f"{name}: fits its width", page["overflow"])
        for words in SAID:
            checks.that(words in page["text"], f"{name}: says '{words}'")
        limits = [c["counts"]["limit"] for c in page["charts"]
                  if c["flow"] == "flow-2" and c["title"] == "Delay of the probes"]
        checks.that(limits and limits[0] > DRAWN["curve"], f"{name}: a limit is a line", limits)
        bands = [c["counts"]["trial"] > DRAWN["mark"] for c in page["charts"] if c["flow"] == "flow-2"]
        checks.that(bands == [True] * 4, f"{name}: each chart has the trials", bands)


def check_uses(checks, uses):
    """By keyboard alone, with the focus where the reader left it."""
    def starts(step):
        return "".join(name[0] for name in step["names"])
    checks.that(uses["bySavings"]["sort"] == "descending" and starts(uses["bySavings"])[:1] == "2",
                "sorts by what is saved, the most first", uses["bySavings"])
    checks.that(starts(uses["bySavings"])[2:] == "14", "and the unknown last", uses["bySavings"])
    checks.that(uses["bySavings"]["focus"] == "sort-saves", "and keeps the focus", uses["bySavings"])
    checks.that(uses["turned"]["sort"] == "ascending" and starts(uses["turned"]) == "3214",
                "turns the order", uses["turned"])
    checks.that(uses["tabbed"] == "open-1", "Tab leads from the headings to the flows", uses["tabbed"])
    checks.that("flow-1" in uses["opened"]["open"] and uses["opened"]["expanded"] == "true" and
                uses["opened"]["focus"] == "open-1", "Enter opens a flow", uses["opened"])
    checks.that("flow-1" not in uses["closed"]["open"] and uses["closed"]["focus"] == "open-1",
                "and closes it", uses["closed"])
    checks.that(starts(uses["filtered"]) == "2" and uses["filtered"]["count"] == "1 of 4 flows",
                "filters", uses["filtered"])
    checks.that(starts(uses["redrawn"]) == "2" and uses["redrawn"]["open"] == ["flow-2"] and
                uses["redrawn"]["focus"] == "filter", "and stays so with later data", uses["redrawn"])
    checks.that(not uses["violations"], "and stays accessible", uses["violations"])


def check_others(checks, found):
    nothing, one, many = (found[name] for name in ("nothing", "one", "many"))
    checks.that("Nothing was reported" in nothing["text"] and "Frontend" not in nothing["text"],
                "a run of nothing says so, and no more", nothing["text"])
    checks.that(nothing["flows"] == 0 and not nothing["charts"], "and draws nothing")
    checks.that("1 flow, 1 through nodes" in one["text"] and one["flows"] == 1, "one flow is one",
                one["text"][:300])
    checks.that(len(one["charts"]) == 5, "and has its charts", len(one["charts"]))
    checks.that(HOSTILE in one["text"] and one["title"] == "Flows of a run",
                "a hostile name is text", (one["title"], one["text"][:600]))
    checks.that(many["flows"] == 200, "of 200 flows each has a row", many["flows"])
    checks.that("Of 200 flows the first 30 in the table are drawn" in many["text"],
                "and it is said which are drawn")
    checks.that(len(many["charts"]) == 1, "and none is opened at once", len(many["charts"]))
    checks.that(many["height"] < MOST_HEIGHT, "and the page stays short", many["height"])


def luminance(colour):
    parts = [int(colour[i:i + 2], 16) / 255 for i in (1, 3, 5)]
    linear = [p / 12.92 if p <= 0.03928 else ((p + 0.055) / 1.055) ** 2.4 for p in parts]
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2]


def check_contrast(checks, text):
    """The contrast of text is at least 4.5 to 1, of curves and marks 3 to 1, in light and dark mode."""
    themes = re.findall(r":root \{(.*?)\}", text, re.DOTALL)
    checks.that(len(themes) == 2, "there are two sets of colours", len(themes))
    for theme in themes:
        colours = {name: code if len(code) == 7 else "#" + "".join(2 * c for c in code[1:])
                   for name, code in re.findall(r"--(\w+): (#[0-9a-f]+)", theme)}
        page = luminance(colours["page"])
        for name, code in colours.items():
            light, dark = sorted((page, luminance(code)), reverse=True)
            least = {"page": 0, "line": 0, "grid": 0, "text": 4.5, "faint": 4.5}.get(name, 3)
            ratio = (light + 0.05) / (dark + 0.05)
            checks.that(ratio >= least, f"{name} {code} stands out", f"{ratio:.2f}")


def main():
    program, out = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    browser = next(filter(None, map(shutil.which, BROWSERS)), None)
    if browser is None:
        skip("no Chromium here")
    folder = javascript.parts_or_skip("browser")
    out.mkdir(parents=True, exist_ok=True)
    page, made = make(program, out, "run", sample_run.reports())
    if "charts are left out" in made.stderr:
        skip("built without the chart library (scripts/fetch_programs.sh --charts)")

    checks = Checks()
    checks.that(made.returncode == 0, "the page is made", made.stderr)
    checks.that(len(made.stdout.splitlines()) == len(sample_run.reports()), "a line a report")
    text = page.read_text(encoding="utf-8")
    checks.that(not re.search(r"""(?:src|href)\s*=\s*["']?\w""", text), "nothing is fetched")
    checks.that("Copyright (c) 2022 Leon Sorokin" in text, "the chart library's notice is in it")
    check_contrast(checks, text)

    looks = [{"name": name, "page": str(page), "width": width, "theme": theme, "uses": name == "light",
              "picture": str(out / f"run-{name}.png")}
             for name, width, theme in (("light", 1400, "light"), ("dark", 1400, "dark"),
                                        ("narrow", 400, "light"), ("narrow-dark", 400, "dark"))]
    for name, reports in (("nothing", []), ("one", sample_run.one_flow(HOSTILE)),
                          ("many", sample_run.many_flows(200))):
        looks.append({"name": name, "page": str(make(program, out, name, reports)[0]), "width": 1400,
                      "theme": "light", "picture": str(out / f"{name}.png")})
    found = look(browser, folder, looks)
    for name, shown in found.items():
        checks.that(not shown["complaints"], f"{name}: no word on the console and no request",
                    shown["complaints"])
        checks.that(not shown["violations"], f"{name}: accessible", shown["violations"])
    check_run(checks, found)
    check_uses(checks, found["light"]["uses"])
    check_others(checks, found)
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    os.environ.pop("DISPLAY", None)
    main()
