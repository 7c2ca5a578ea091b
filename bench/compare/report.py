"""docs/performance.md and its pictures, from the results of one run.

performance.md.in has the words. A line `{{table BENCH WORD}}` becomes the rows of BENCH that have WORD in
their name, `{{calls BENCH}}` the times of calls, `{{added}}` the delay that each way adds at a game's
pace, `{{goals}}` what was wanted and what was reached, `{{machine}}` a sentence about the machine and the run."""

import pathlib
import re

import goals
import pictures

TEMPLATE = pathlib.Path(__file__).with_name("performance.md.in")


def write(tree, results):
    (tree / "docs/performance.md").write_text(text(tree, results))
    pictures.draw(tree / "docs", results)


def text(_tree, results):
    def fill(match):
        kind, *words = match.group(1).split(maxsplit=2)
        return FILLERS[kind](results, *words)

    return re.sub(r"^\{\{(.+)\}\}$", fill, TEMPLATE.read_text(), flags=re.M)


def machine(results):
    of = results["machine"]
    return (f"Measured on {of['date']} at {of['commit']}: {of['processors']} processors ({of['processor']}), Linux "
            f"{of['kernel']}, load {of['load_before']:.1f} before and {of['load_after']:.1f} after; medians of "
            f"{results['rounds']} alternating rounds. In brackets: where the middle half of the rounds lies.")  # fmt: skip


def table(results, bench, word=""):
    rows = [row for row in results["tables"].get(bench, []) if word in row["measure"]]
    if not rows:
        return "*Not measured.*"
    ways = in_order(way for row in rows for way in row["median"])
    pairs = in_order(pair for row in rows for pair in row.get("ratio", {}))
    lines = [cells(["", "unit", *ways, *pairs]), cells(["---", "---", *["--:"] * len(ways + pairs)])]
    for row in rows:
        medians = [figure(row["median"][way]) if way in row["median"] else "" for way in ways]
        lines.append(cells([row["measure"], row["unit"], *medians, *[ratio(row, pair) for pair in pairs]]))
    return "\n".join(lines)


def ratio(row, pair):
    if pair not in row.get("ratio", {}):
        return ""
    low, high = row["quartiles"][pair]
    return f"**{row['ratio'][pair]:.2f}** ({low:.2f}–{high:.2f})"


def calls(results, bench):
    figures = results["calls"].get(bench)
    if not figures:
        return "*Not measured.*"
    lines = [cells(["", "ns", "middle half"]), cells(["---", "--:", "--:"])]
    for name, of in figures.items():
        low, high = of["quartiles"]
        lines.append(cells([f"`{name}`", figure(of["ns"]), f"{figure(low)}–{figure(high)}"]))
    return "\n".join(lines)


def share(results):
    """What an intercepted call that is not relayed adds to a send of the system's."""
    of = results["calls"].get("hook_bench")
    if not of:
        return "*Not measured.*"
    added, bare = of["HookedSend/16"]["ns"] - of["NextProviderSend/1"]["ns"], of["SystemSend"]["ns"]
    return (f"An intercepted `send` that is not relayed costs {added:.0f} ns more with 16 open sockets. A `send` of one "
            f"datagram to this machine's own loopback takes {bare:.0f} ns, so that is "
            f"**{(bare + added) / bare:.3f}** of the bare call.")  # fmt: skip


def added(results):
    """Percentiles of all rounds, less the direct way's."""
    percentiles = results.get("percentiles")
    if not percentiles:
        return "*Not measured.*"
    shares = ((0.5, "p50"), (0.99, "p99"), (0.999, "p99.9"))
    lines = [cells(["added delay, us", "way", "round trips", *[name for _, name in shares]]),
             cells(["---", "---", *["--:"] * (len(shares) + 1)])]  # fmt: skip
    for pace, ways in percentiles.items():
        for way, of in ways.items():
            if way == "direct":
                continue
            delays = [goals.added(results, pace, way, share) for share, _ in shares]
            lines.append(cells([pace, way, f"{of['count']:,}", *["" if us is None else f"{us:.0f}" for us in delays]]))
    return "\n".join(lines)


def wanted(results):
    """The goals, and how far each is reached."""
    lines = [cells(["", "ways", "wanted", "measured", "short by"]), cells(["---", "---", "--:", "--:", "--:"])]
    return "\n".join([*lines, *(cells(line) for line in goals.lines(results))])


def figure(value):
    if value >= 1000:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def cells(words):
    return "| " + " | ".join(str(word) for word in words) + " |"


def in_order(names):
    return list(dict.fromkeys(names))


FILLERS = {"table": table, "calls": calls, "share": share, "added": added, "goals": wanted,
           "machine": machine}  # fmt: skip
