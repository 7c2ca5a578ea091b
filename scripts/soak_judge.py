"""Says of the samples of a long run which figures grow, and draws them as an SVG picture."""
import dataclasses
import html
import statistics

WARM_UP = 0.2           # the share of a run that does not count
FEWEST_SAMPLES = 8      # after it
TERCILE = 3


@dataclasses.dataclass
class Limit:
    """How much a figure may grow over a run: by that much, or by that share of its middle value,
    whichever is more. What a run needs at its busiest moment shows in single samples, so the
    middles of the first and the last third are compared, and the slope between all samples."""
    name: str
    unit: str
    most: float
    share: float = 0.0


LIMITS = (
    Limit("descriptors", "", 6),
    Limit("threads", "", 2),
    Limit("handles", "", 6),
    Limit("views", "", 2),
    Limit("blocks", "", 4),
    Limit("memory", "KiB", 1536, 0.03),
    Limit("processor", "% of a core", 3, 0.5),
    Limit("unended", "flows", 6),
)


@dataclasses.dataclass
class Verdict:
    limit: Limit
    first: float      # the middle of the first third
    last: float       # of the last third
    growth: float     # over the time that was judged, by the slope
    allowed: float
    grows: bool

    def line(self):
        unit = f" {self.limit.unit}" if self.limit.unit else ""
        return (f"{'GROWS' if self.grows else 'flat':5}  {self.limit.name:12} {self.first:10.1f} -> "
                f"{self.last:10.1f}{unit}, slope {self.growth:+.1f} in the time judged, "
                f"allowed {self.allowed:.1f}")


def slope(times, values):
    """Of the straight line through these (least squares), in units a second."""
    middle_time, middle = statistics.fmean(times), statistics.fmean(values)
    spread = sum((time - middle_time) ** 2 for time in times)
    if spread == 0:
        return 0.0
    return sum((time - middle_time) * (value - middle)
               for time, value in zip(times, values)) / spread


def judged(samples):
    """The samples after the warm-up."""
    if not samples:
        return []
    begin, end = samples[0]["at"], samples[-1]["at"]
    return [one for one in samples if one["at"] >= begin + WARM_UP * (end - begin)]


def judge(samples, limits=LIMITS):
    """A verdict for each figure. ValueError if there are too few samples for any."""
    rest = judged(samples)
    if len(rest) < FEWEST_SAMPLES:
        raise ValueError(f"{len(rest)} samples after the warm-up are too few to judge")
    verdicts = []
    for limit in limits:
        points = [(one["at"], one[limit.name]) for one in rest if limit.name in one]
        if len(points) < FEWEST_SAMPLES:
            raise ValueError(f"{len(points)} samples of {limit.name} are too few to judge")
        times, values = zip(*points)
        third = max(1, len(values) // TERCILE)
        first, last = statistics.median(values[:third]), statistics.median(values[-third:])
        growth = slope(times, values) * (times[-1] - times[0])
        allowed = max(limit.most, limit.share * statistics.median(values))
        verdicts.append(Verdict(limit, first, last, growth, allowed,
                                growth > allowed and last - first > allowed / 2))
    return verdicts


# --- the picture --------------------------------------------------------------------------------

WIDTH, ROW, LEFT, RIGHT, TOP = 860, 92, 150, 20, 34


def _path(points):
    return " ".join(f"{'M' if i == 0 else 'L'}{x:.1f},{y:.1f}" for i, (x, y) in enumerate(points))


def _row(samples, verdict, top):
    name = verdict.limit.name
    points = [(one["at"], one[name]) for one in samples if name in one]
    most = max(value for _, value in points) or 1
    end = samples[-1]["at"] or 1
    plot = WIDTH - LEFT - RIGHT
    height = ROW - 30
    drawn = _path([(LEFT + plot * at / end, top + height * (1 - value / most)) for at, value in points])
    warm = plot * WARM_UP
    label = f"{name}{', ' + verdict.limit.unit if verdict.limit.unit else ''}"
    colour = "#c0392b" if verdict.grows else "#1f6f8b"
    return (f'<rect x="{LEFT}" y="{top}" width="{warm:.0f}" height="{height}" fill="#f0f0f0"/>'
            f'<line x1="{LEFT}" y1="{top + height}" x2="{WIDTH - RIGHT}" y2="{top + height}" stroke="#999"/>'
            f'<path d="{drawn}" fill="none" stroke="{colour}" stroke-width="1.2"/>'
            f'<text x="{LEFT - 8}" y="{top + 14}" text-anchor="end" font-weight="bold">{html.escape(label)}</text>'
            f'<text x="{LEFT - 8}" y="{top + 32}" text-anchor="end">at most {most:.0f}</text>'
            f'<text x="{LEFT - 8}" y="{top + 50}" text-anchor="end" fill="{colour}">'
            f'{"grows" if verdict.grows else "flat"}</text>')


def picture(samples, verdicts, title):
    """The figures over time, one row each, from 0 to the largest; the warm-up is grey."""
    height = TOP + ROW * len(verdicts) + 10
    rows = "\n".join(_row(samples, verdict, TOP + ROW * i) for i, verdict in enumerate(verdicts))
    return (f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
            f'viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="12">\n'
            f'<rect width="100%" height="100%" fill="white"/>\n'
            f'<text x="{LEFT}" y="20" font-size="14">{html.escape(title)}</text>\n{rows}\n</svg>\n')
