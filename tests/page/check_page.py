#!/usr/bin/env python3
"""Draws the page of a made-up run and looks at it in a browser without a screen.

usage: check_page.py VYR_CLIENT OUT_DIR

Kept in OUT_DIR: run.jsonl, run.html, and run.png, the browser's picture of it. Exit code 77 where
there is no browser or the program was built without the chart library.
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

BROWSERS = ("chromium", "chromium-browser", "google-chrome")
TIMEOUT_S = 120
# Two flows with three charts each, and the one of all flows.
CHARTS = 7
# What each chart must show, by its heading: the colours of its curves.
CURVES = {"Rate": ("sent", "recv"), "Delay": ("front",), "Probes": ("front",)}

# Stands at the end of a copy of the page, and writes what it finds into the document.
LOOK = """
<script>
addEventListener("load", () => {
  const charts = [...document.querySelectorAll(".chart")].map(place => {
    const canvas = place.querySelector("canvas");
    const pixels = canvas.getContext("2d").getImageData(0, 0, canvas.width, canvas.height).data;
    const near = name => {
      const hex = colour(name), wanted = [1, 3, 5].map(i => parseInt(hex.slice(i, i + 2), 16));
      let count = 0;
      for (let i = 0; i < pixels.length; i += 4) {
        if (pixels[i + 3] > 200 && wanted.every((c, k) => Math.abs(pixels[i + k] - c) < 12)) ++count;
      }
      return count;
    };
    const counts = {};
    for (const name of ["sent", "recv", "front", "back", "decision", "failure", "switch"]) counts[name] = near(name);
    return { title: place.previousSibling.textContent, width: canvas.width, counts };
  });
  const rows = document.querySelectorAll("#figures tbody tr").length;
  const found = document.createElement("pre");
  found.id = "found";
  found.textContent = JSON.stringify({ charts, rows, text: document.body.innerText, overflow:
    document.documentElement.scrollWidth - document.documentElement.clientWidth });
  document.body.append(found);
});
</script>
"""


class Checks:
    passed = failed = 0

    def that(self, condition, what, detail=""):
        if condition:
            self.passed += 1
        else:
            self.failed += 1
            print(f"FAILED: {what} {detail}")


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def browse(browser, page, *arguments):
    with tempfile.TemporaryDirectory(prefix="vyr-page-") as profile:
        command = [browser, "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
                   "--disable-background-networking", "--disable-component-update",
                   # No name resolves and no address is reached: the page has all it needs.
                   "--host-resolver-rules=MAP * ~NOTFOUND", f"--user-data-dir={profile}",
                   "--enable-logging=stderr", "--virtual-time-budget=5000", *arguments,
                   pathlib.Path(page).absolute().as_uri()]
        done = subprocess.run(command, capture_output=True, text=True, timeout=TIMEOUT_S,
                              stdin=subprocess.DEVNULL)
    return done.stdout, [line for line in done.stderr.splitlines() if "CONSOLE" in line]


def look(browser, page, out, width):
    copy = out / "run-look.html"
    copy.write_text(page.read_text(encoding="utf-8") + LOOK, encoding="utf-8")
    dom, console = browse(browser, copy, f"--window-size={width},900", "--dump-dom")
    copy.unlink()
    found = re.search(r'<pre id="found">(.*?)</pre>', dom, re.DOTALL)
    return json.loads(html.unescape(found[1])) if found else None, console


def check_charts(checks, found):
    checks.that(len(found["charts"]) == CHARTS, "every chart is there", len(found["charts"]))
    for chart in found["charts"]:
        for heading, colours in CURVES.items():
            for name in colours if chart["title"].startswith(heading) else ():
                checks.that(chart["counts"][name] > 100, f"{chart['title']}: {name} is drawn",
                            chart["counts"])
    whole = found["charts"][0]["counts"]
    for kind in ("decision", "failure", "switch"):
        checks.that(whole[kind] > 20, f"the overview shows each {kind}", whole)
    backs = [c["counts"]["back"] > 100 for c in found["charts"] if c["title"].startswith("Delay")]
    checks.that(sorted(backs) == [False, True], "a second relay is drawn where there is one", backs)


def main():
    program, out = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    browser = next(filter(None, map(shutil.which, BROWSERS)), None)
    if browser is None:
        skip("no Chromium here")
    out.mkdir(parents=True, exist_ok=True)
    run, page, picture = out / "run.jsonl", out / "run.html", out / "run.png"
    sample_run.write(run)
    made = subprocess.run([program, "watch", "--from", run, "--report", page], timeout=TIMEOUT_S,
                          capture_output=True, text=True)
    if "charts are left out" in made.stderr:
        skip("built without the chart library (scripts/fetch_programs.sh --charts)")

    checks = Checks()
    checks.that(made.returncode == 0, "the page is made", made.stderr)
    checks.that(len(made.stdout.splitlines()) == len(sample_run.reports()), "a line a report")
    text = page.read_text(encoding="utf-8")
    checks.that(not re.search(r"""(?:src|href)\s*=\s*["']?\w""", text), "nothing is fetched")
    for width in (1280, 420):
        found, console = look(browser, page, out, width)
        checks.that(not console, f"no word on the console at {width}", console)
        checks.that(found is not None, f"the page runs to its end at {width}")
        if found is None:
            continue
        check_charts(checks, found)
        checks.that(found["rows"] == 4, "a row a flow", found["rows"])
        checks.that(found["overflow"] <= 0, f"fits {width} pixels", found["overflow"])
        checks.that("</script><b>log</b>" in found["text"], "a hostile path is shown as text")
    browse(browser, page, "--window-size=1280,2600", f"--screenshot={picture.absolute()}")
    checks.that(picture.exists() and picture.stat().st_size > 20000, "a picture is kept")
    print(f"{checks.passed} passed, {checks.failed} failed")
    sys.exit(1 if checks.failed else 0)


if __name__ == "__main__":
    os.environ.pop("DISPLAY", None)
    main()
