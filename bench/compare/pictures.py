"""The pictures of docs/performance.md."""

import re

COLOURS = {"vyr": "#c2410c", "vyr+mend": "#f59e0b", "vyr+node": "#7c2d12", "nginx": "#166534", "haproxy": "#166534",
           "socat": "#1d4ed8", "select": "#6b7280", "direct": "#111827", "select+select": "#9ca3af", "socat+socat": "#93c5fd"}  # fmt: skip


def draw(folder, results):
    try:
        import matplotlib
    except ImportError:
        print("no matplotlib here (scripts/setup.sh installs it): the pictures stay as they are")
        return
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "vyr", "svg.fonttype": "none", "font.size": 9, "axes.grid": True, "grid.alpha": 0.3,
                                "axes.spines.top": False, "axes.spines.right": False})  # fmt: skip
    import matplotlib.pyplot as pyplot

    draw_percentiles(pyplot, folder / "performance-pace.svg", results.get("percentiles", {}))
    draw_growth(pyplot, folder / "performance-growth.svg", results["tables"])


def save(pyplot, figure, path):
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    pyplot.close(figure)


def draw_percentiles(pyplot, path, percentiles):
    """One panel a pace; to the right, the rarer and slower round trips."""
    figure, panels = pyplot.subplots(2, 4, figsize=(14, 6), squeeze=False)
    for panel in panels.flat[len(percentiles):]:
        panel.set_visible(False)
    for panel, (pace, ways) in zip(panels.flat, percentiles.items()):
        for way, of in ways.items():
            points = [(1 / (1 - share), us) for share, us in of["us"] if 0.25 <= share and us > 0]
            panel.plot(*zip(*points), label=way, color=COLOURS.get(way), marker=".", linewidth=1)
        panel.set(title=pace, xscale="log", yscale="log", ylabel="round trip, µs")
        panel.set_xticks([2, 10, 100, 1000, 10000], ["50 %", "90 %", "99 %", "99.9 %", "99.99 %"])
        panel.minorticks_off()
    panels[0][0].legend(fontsize=7)
    save(pyplot, figure, path)


def growth(rows, pattern):
    """Way to its points (how many flows or connections, figure)."""
    lines = {}
    for row in rows:
        if match := re.fullmatch(pattern, row["measure"]):
            for way, value in row["median"].items():
                lines.setdefault(way, []).append((int(match.group(1)), value))
    return lines


def draw_growth(pyplot, path, tables):
    kinds = (
        ("datagrams: game and relay, µs each", "udp_bench", r"(\d+) flows?, game and relay", None),
        ("round trips: processor, µs each", "tcp_bench", r"processor, (\d+) conn\.", "us/trip"),
        ("download, MB/s", "tcp_bench", r"download, (\d+) conn\.", None),
    )
    figure, panels = pyplot.subplots(1, len(kinds), figsize=(11, 3.4))
    for panel, (title, bench, pattern, unit) in zip(panels, kinds):
        rows = [row for row in tables.get(bench, []) if unit in (None, row["unit"])]
        for way, points in growth(rows, pattern).items():
            panel.plot(*zip(*points), label=way, color=COLOURS.get(way), marker=".", linewidth=1)
        panel.set(title=title, xscale="log", ylim=(0, None))
        panel.set_xticks([1, 4, 16, 60], ["1", "4", "16", "60"])
        panel.minorticks_off()
        panel.legend(fontsize=7)
    save(pyplot, figure, path)
