"""The course of a long run: its arguments, its samples and what happens meanwhile, and how it ends."""
import argparse
import dataclasses
import json
import pathlib
import signal
import threading
import time

import demo_bed
import soak_flows
import soak_judge

SAMPLE_S = 1.0
FEWEST_SAMPLES = 40   # a short run is sampled more often,
SHORT_S = 20.0        # and one below this has as much happen in it
PROGRESS_S = 15.0


@dataclasses.dataclass
class Run:
    limits: tuple
    game: str    # in words
    wrong: list = dataclasses.field(default_factory=list)   # that makes it worth nothing, or worse
    samples: list = dataclasses.field(default_factory=list)
    happened: dict = dataclasses.field(default_factory=dict)
    flows: soak_flows.Flows = dataclasses.field(default_factory=soak_flows.Flows)

    def take_samples(self, seconds, sample, steps):
        """For so many seconds, or until a signal asks to end. `sample` gives the figures of the moment, or
        nothing if there are none yet; of `steps`, each (seconds, work) is done again and again, so often."""
        ended = threading.Event()
        for number in (signal.SIGTERM, signal.SIGINT):
            signal.signal(number, lambda *_: ended.set())
        every, pace = min(SAMPLE_S, seconds / FEWEST_SAMPLES), min(1.0, seconds / SHORT_S)
        begin, next_word = time.monotonic(), PROGRESS_S
        due = [period * pace for period, _ in steps]
        while (at := time.monotonic() - begin) < seconds:
            if figures := sample():
                self.samples.append({"at": round(at, 2), **figures})
            for i, (period, work) in enumerate(steps):
                if at >= due[i]:
                    due[i] = at + period * pace
                    work()
            if at >= next_word and self.samples:
                next_word += PROGRESS_S
                self._say_progress(at)
            if ended.wait(max(0.0, every - (time.monotonic() - begin - at))):
                print(f"asked to end after {time.monotonic() - begin:.0f} s", flush=True)
                return

    def _say_progress(self, at):
        last = self.samples[-1]
        print(f"{at:5.0f} s  " + "  ".join(f"{limit.name} {last[limit.name]:.0f}"
                                           for limit in self.limits if limit.name in last), flush=True)

    def finish(self, options, needed):
        """Says, writes and draws what was found. Failed if something grows, or if the run is worth
        nothing: of what is `needed`, everything has to have happened."""
        self._look_for_wrong(needed)
        for one in self.wrong:
            print(f"wrong: {one}")
        verdicts = soak_judge.judge(self.samples, self.limits)
        words = ", ".join(f"{name} {number}" for name, number in self.happened.items())
        print(f"{len(self.samples)} samples in {self.samples[-1]['at'] / 60:.3g} minutes; {words}")
        for verdict in verdicts:
            print(verdict.line())
        if options.json:
            options.json.write_text(json.dumps(self._as_json(options, verdicts), indent=1) + "\n")
        if options.picture:
            minutes = self.samples[-1]["at"] / 60   # fewer than asked for if the run ended early
            title = f"{minutes:.3g} minutes of {self.game}, mended: {options.mended}"
            options.picture.write_text(soak_judge.picture(self.samples, verdicts, title))
        if self.wrong:
            raise demo_bed.Failed("; ".join(self.wrong))
        if any(verdict.grows for verdict in verdicts):
            raise demo_bed.Failed("something grows")

    def _as_json(self, options, verdicts):
        return {"minutes": options.minutes, "mended": options.mended, "seed": options.seed,
                "happened": self.happened, "samples": self.samples, "flows": self.flows.left(),
                "verdicts": {one.limit.name: {"first": one.first, "last": one.last,
                                              "growth": one.growth, "allowed": one.allowed,
                                              "grows": one.grows} for one in verdicts}}

    def _look_for_wrong(self, needed):
        if self.happened.get("wrong"):
            self.wrong.append(f"{self.happened['wrong']} messages were altered")
        self.wrong += [f"nothing happened: {name} is 0" for name in needed if not self.happened.get(name)]


def parser(description):
    found = argparse.ArgumentParser(prog="soak.sh", description=description)
    found.add_argument("--minutes", type=float, required=True)
    found.add_argument("--json", type=pathlib.Path, help="where to write the samples")
    found.add_argument("--picture", type=pathlib.Path, help="where to draw them, as SVG")
    found.add_argument("--mended", choices=("all", "none"), default="all")
    found.add_argument("--seed", type=int, default=1, help="of the troubles of the nodes")
    found.add_argument("--build", type=pathlib.Path, default=demo_bed.TREE / "build" / "posix",
                       help="with the native programs")
    return found


def check(found, options, programs):
    """Ends the program if it cannot run so. `programs` are paths, and the preset that builds each."""
    if options.minutes <= 0:
        found.error("--minutes is more than 0")
    for file in (options.json, options.picture):
        if file and not file.parent.is_dir():
            found.error(f"{file}: there is no folder {file.parent}")
    for path, preset in programs.items():
        if not path.exists():
            found.error(f"{path} is not there: cmake --build --preset {preset}")
