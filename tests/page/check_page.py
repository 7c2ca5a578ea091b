#!/usr/bin/env python3
"""Draws pages of made-up runs and looks at them in a browser without a screen.

usage: check_page.py VYR_CLIENT OUT_DIR

Kept in OUT_DIR: run.jsonl, run.html, and the browser's pictures of it, run.png and run-dark.png.
Exit code 77 where there is no browser or the program was built without the chart library.
"""
import html
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import sample_run
from checks import Checks

BROWSERS = ("chromium", "chromium-browser", "google-chrome")
TIMEOUT_S = 120
# Two flows with three charts each, and the one of all flows.
CHARTS = 7
HOSTILE = "</script><img src=x onerror=\"document.title='taken'\">"  # a node's name
# What each chart must show, by its heading: the colours of its curves.
CURVES = {"Rate": ("sent", "recv"), "Delay": ("front",), "Probes": ("front",)}

# What must be read on the page of the made-up run: sums, the last figures of a flow through two relays,
# the outcome of a flow without figures, a time counted from the run's start.
SAID = ("4 flows, 2 through nodes; 3 failed negotiations, 1 move to another node",
        "sent 494.7 kB, received 989.3 kB", "127 ±15 ms", "15.0 %", "1362",
        "direct, after 2 failed negotiations", "direct: the destination is inside",
        "1 min 35.9 s", "moved to node-2 198.51.100.21:9000", "curves end with the move",
        # A path that would end the script, or be an element.
        "</script><b>log</b>")

# How many pixels a curve or a mark has at least, a band of amplitude, the labels of an axis.
DRAWN = {"curve": 100, "mark": 20, "band": 1000, "labels": 100}

# Stands at the end of a copy of each page, and tells the page around it what it finds.
LOOK = """
<script>
addEventListener("load", () => {
  const name = location.hash.slice(1), kinds = name === "wide" || name === "narrow"
    ? ["sent", "recv", "front", "back", "decision", "negotiation", "failure", "switch", "end"] : [];
  const wanted = kinds.map(kind => [1, 3, 5].map(i => parseInt(colour(kind).slice(i, i + 2), 16)));
  const charts = [...document.querySelectorAll(".chart")].map(place => {
    const canvas = place.querySelector("canvas"), counts = Object.fromEntries(kinds.map(kind => [kind, 0]));
    const pixels = kinds.length ? canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data : [];
    Object.assign(counts, { heads: 0, band: 0, labels: 0 });  // heads: of marks, above the curves
    for (let i = 0; i < pixels.length; i += 4) {
      const x = i / 4 % canvas.width, y = Math.floor(i / 4 / canvas.width), alpha = pixels[i + 3];
      if (alpha > 200 && y < 12) ++counts.heads;
      if (alpha > 200 && x < 60) ++counts.labels;
      if (alpha > 40 && alpha < 60 && x > 90) ++counts.band;
      if (alpha > 200) wanted.forEach((rgb, k) => {
        if (rgb.every((c, j) => Math.abs(pixels[i + j] - c) < 12)) ++counts[kinds[k]];
      });
    }
    return { title: place.previousSibling.textContent, width: canvas.width, counts };
  });
  const fills = [...document.querySelectorAll("#legend polygon")].map(shape => getComputedStyle(shape).fill);
  parent.postMessage({ name, charts, title: document.title, fills: new Set(fills).size,
    rows: document.querySelectorAll("#figures tbody tr").length, text: document.body.innerText,
    links: [...document.querySelectorAll("#figures a")].filter(a => document.querySelector(a.hash)).length,
    overflow: document.documentElement.scrollWidth - document.documentElement.clientWidth }, "*");
});
</script>
"""

# The page around them: all in one run of the browser, which takes longer to start than to draw.
AROUND = """<!DOCTYPE html><pre id="found"></pre><script>
const found = {};
addEventListener("message", event => {
  found[event.data.name] = event.data;
  document.getElementById("found").textContent = JSON.stringify(found);
});
</script>
"""


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def browse(browser, page, *arguments):
    with tempfile.TemporaryDirectory(prefix="vyr-page-", ignore_cleanup_errors=True) as profile:
        command = [browser, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                   "--disable-background-networking", "--disable-component-update",
                   # No name resolves and no address is reached: the page has all it needs.
                   "--host-resolver-rules=MAP * ~NOTFOUND", f"--user-data-dir={profile}",
                   "--enable-logging=stderr", "--virtual-time-budget=5000", *arguments,
                   pathlib.Path(page).absolute().as_uri()]
        done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S,
                              stdin=subprocess.DEVNULL)
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


def look(browser, pages, out):
    """What each page shows, by name; `pages` are (name, page, width)."""
    around, copies = AROUND, []
    for name, page, width in pages:
        copies.append(out / f"look-{name}.html")
        copies[-1].write_text(page.read_text(encoding="utf-8") + LOOK, encoding="utf-8")
        around += f'<iframe src="{copies[-1].name}#{name}" style="width:{width}px;height:900px;border:0"></iframe>\n'
    copies.append(out / "look.html")
    copies[-1].write_text(around, encoding="utf-8")
    dom, console = browse(browser, copies[-1], "--window-size=1400,900", "--dump-dom")
    for copy in copies:
        copy.unlink()
    found = re.search(r'<pre id="found">(.+?)</pre>', dom, re.DOTALL)
    return json.loads(html.unescape(found[1])) if found else {}, console


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
                                ("band", DRAWN["band"] if chart["title"].startswith("Delay") else 0)):
                checks.that(chart["counts"][part] >= least, f"{chart['title']}: has its {part}",
                            chart["counts"])
    whole = found["charts"][0]["counts"]
    for kind in ("decision", "negotiation", "failure", "switch", "end"):
        checks.that(whole[kind] > DRAWN["mark"], f"the overview shows each {kind}", whole)
    backs = [c["counts"]["back"] > 100 for c in found["charts"] if c["title"].startswith("Delay")]
    checks.that(sorted(backs) == [False, True], "a second relay is drawn where there is one", backs)


def check_run(checks, found):
    for name in ("wide", "narrow"):
        if name not in found:
            continue
        page = found[name]
        check_charts(checks, page)
        checks.that(page["rows"] == 4, f"{name}: a row a flow", page["rows"])
        checks.that(page["links"] == 4, f"{name}: each leads to the flow's charts", page["links"])
        checks.that(page["fills"] == 5, f"{name}: the legend shows five colours", page["fills"])
        checks.that(page["overflow"] <= 0, f"{name}: fits its width", page["overflow"])
        for words in SAID:
            checks.that(words in page["text"], f"{name}: says '{words}'")


def check_others(checks, found):
    missing = {"charts": [], "rows": -1, "links": -1, "text": "", "title": ""}
    nothing, one, many = (found.get(name, missing) for name in ("nothing", "one", "many"))
    checks.that("Nothing was reported" in nothing["text"] and "Frontend" not in nothing["text"],
                "a run of nothing says so, and no more", nothing["text"])
    checks.that(nothing["rows"] == 0 and not nothing["charts"], "and draws nothing")
    checks.that("1 flow, 1 through nodes" in one["text"] and one["rows"] == 1, "one flow is one",
                one["text"][:300])
    checks.that(len(one["charts"]) == 4, "and has its charts", len(one["charts"]))
    checks.that(HOSTILE in one["text"] and one["title"] == "Flows of a run",
                "a hostile name is text", (one["title"], one["text"][:600]))
    checks.that(many["rows"] == 200, "of 200 flows each has a row", many["rows"])
    checks.that("Of 200 flows the 30 with most reports are drawn" in many["text"],
                "and it is said which are drawn")
    checks.that(len(many["charts"]) == 1 + 30 * 3 and many["links"] == 30, "and those are",
                (len(many["charts"]), many["links"]))
    checks.that("\n11. UDP to" in many["text"] and "\n1. UDP to" not in many["text"],
                "and no flow with fewer reports")


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

    pages = [("wide", page, 1280), ("narrow", page, 420)]
    for name, reports in (("nothing", []), ("one", sample_run.one_flow(HOSTILE)),
                          ("many", sample_run.many_flows(200))):
        pages.append((name, make(program, out, name, reports)[0], 1280))
    found, console = look(browser, pages, out)
    for name, other, _ in pages[2:]:
        other.unlink()
        other.with_suffix(".jsonl").unlink()
    checks.that(not console, "no word on the console", console)
    checks.that(len(found) == len(pages), "every page runs to its end", list(found))
    check_run(checks, found)
    check_others(checks, found)

    for name, *arguments in (("run.png",), ("run-dark.png", "--blink-settings=preferredColorScheme=0")):
        picture = out / name
        picture.unlink(missing_ok=True)
        browse(browser, page, "--hide-scrollbars", "--window-size=1280,3200",
               f"--screenshot={picture.absolute()}", *arguments)
        checks.that(picture.exists() and picture.stat().st_size > 20000, f"{name} is kept")
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    os.environ.pop("DISPLAY", None)
    main()
