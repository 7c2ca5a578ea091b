"""The judge of long runs on made-up samples: what grows is noticed, what only moves is not."""
import math
import pathlib
import random
import sys
import unittest
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import soak_judge  # noqa: E402

FLAT = {"descriptors": 40, "threads": 14, "handles": 60, "views": 12, "blocks": 3, "memory": 20_000,
        "processor": 8, "unended": 4}


def run(seconds=600, **figures):
    """Samples of a run, a second apart; `figures` are functions of the time."""
    noise = random.Random(1)
    samples = []
    for at in range(seconds):
        sample = {"at": float(at)}
        for name, value in FLAT.items():
            sample[name] = figures[name](at) if name in figures else value + noise.randint(-2, 2)
        samples.append(sample)
    return samples


def growing(samples):
    return {verdict.limit.name for verdict in soak_judge.judge(samples) if verdict.grows}


class Judge(unittest.TestCase):
    def test_a_run_that_only_moves_is_flat(self):
        self.assertEqual(growing(run()), set())
        self.assertEqual(growing(run(60)), set())

    def test_a_handle_in_twenty_seconds_is_noticed(self):
        self.assertEqual(growing(run(handles=lambda at: 60 + at // 20)), {"handles"})

    def test_each_figure_is_judged(self):
        for limit in soak_judge.LIMITS:
            base = FLAT[limit.name]
            step = 4 * max(limit.most, limit.share * base) / 600
            leak = {limit.name: lambda at, base=base, step=step: base + step * at}
            self.assertEqual(growing(run(**leak)), {limit.name})

    def test_a_leak_under_noise_is_noticed(self):
        noise = random.Random(2)
        samples = run(descriptors=lambda at: 40 + at / 30 + noise.randint(-10, 10))
        self.assertEqual(growing(samples), {"descriptors"})

    def test_what_grows_only_while_it_warms_up_is_flat(self):
        self.assertEqual(growing(run(memory=lambda at: 20_000 + 80 * min(at, 100))), set())

    def test_what_comes_and_goes_is_flat(self):
        self.assertEqual(growing(run(descriptors=lambda at: 40 + 15 * math.sin(at / 9))), set())
        self.assertEqual(growing(run(unended=lambda at: at % 40)), set())

    def test_a_peak_at_the_end_is_flat(self):
        self.assertEqual(growing(run(handles=lambda at: 60 if at < 580 else 75)), set())

    def test_what_shrinks_is_flat(self):
        self.assertEqual(growing(run(memory=lambda at: 40_000 - 20 * at)), set())

    def test_too_few_samples_are_refused(self):
        for samples in ([], run(5), [{"at": float(at)} for at in range(100)]):
            with self.assertRaises(ValueError):
                soak_judge.judge(samples)


class Picture(unittest.TestCase):
    def test_is_well_formed_and_has_a_row_for_each_figure(self):
        samples = run(handles=lambda at: 60 + at)
        text = soak_judge.picture(samples, soak_judge.judge(samples), "a < b")
        tree = xml.etree.ElementTree.fromstring(text)
        words = [one.text for one in tree.iter("{http://www.w3.org/2000/svg}text")]
        self.assertEqual(words[0], "a < b")
        self.assertEqual(words.count("grows"), 1)
        self.assertEqual(words.count("flat"), len(soak_judge.LIMITS) - 1)


if __name__ == "__main__":
    unittest.main()
