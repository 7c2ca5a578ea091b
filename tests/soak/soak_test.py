"""The judge of long runs on made-up samples: what grows is noticed, what only moves is not. And the
flows of a run on made-up reports: an end that never came is told from a report that came after it, and from one
that nobody was there to take."""
import json
import math
import pathlib
import random
import sys
import unittest
import unittest.mock
import xml.etree.ElementTree

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import soak_flows  # noqa: E402
import soak_judge  # noqa: E402
import soak_reports  # noqa: E402

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


class Flows(unittest.TestCase):
    def flows(self, *reports):
        """After these reports: (socket, whether it is the last one, tick)."""
        flows = soak_flows.Flows()
        for report in reports:
            flows.take([report])
        return flows

    def test_a_socket_without_a_last_report_is_open(self):
        flows = self.flows(("a", 0, 1), ("b", 0, 2), ("a", 0, 3), ("b", 1, 4))
        self.assertEqual(flows.open, {"a": [[1], [3]]})
        self.assertEqual(flows.after_end, [])

    def test_one_that_is_reported_after_its_end_is_not_open_again(self):
        flows = self.flows(("a", 0, 1), ("a", 1, 2), ("a", 0, 3))
        self.assertEqual(flows.open, {})
        self.assertEqual(flows.after_end, [("a", [2], [3])])

    def test_an_end_without_anything_before_it_is_one(self):
        flows = self.flows(("a", 1, 1), ("a", 0, 2))
        self.assertEqual(flows.open, {})
        self.assertEqual(len(flows.after_end), 1)

    def test_what_never_ends_grows_and_what_comes_late_does_not(self):
        flows = soak_flows.Flows()
        samples = run(unended=lambda at: 0)
        for at, sample in enumerate(samples):
            flows.take([(f"late {at}", 1, at), (f"late {at}", 0, at)])
            sample["unended"] = len(flows.open)
        self.assertEqual(growing(samples), set())
        for at, sample in enumerate(samples):
            flows.take([(f"lost {at}", 0, at)])
            sample["unended"] = len(flows.open)
        self.assertEqual(growing(samples), {"unended"})

    def test_the_latest_reports_of_an_open_socket_are_kept(self):
        most = soak_flows.MOST_KEPT
        flows = self.flows(*(("a", 0, tick) for tick in range(3 * most)))
        self.assertEqual(flows.left()["open"], {"a": [[tick] for tick in range(2 * most, 3 * most)]})


class Reports(unittest.TestCase):
    """Under Wine, the reports come as lines of a watcher that is killed now and then."""

    def setUp(self):
        self.now = 1000.0
        patched = unittest.mock.patch("time.monotonic", lambda: self.now)
        patched.start()
        self.addCleanup(patched.stop)
        self.reports = soak_reports.Reports(soak_flows.Flows(), 10001)

    def take(self, guid, ended=0, life=0, game_id=10001, event="communication"):
        self.reports.take(json.dumps({
            "event": event, "game_id": game_id, "guid_str": guid, "create_tick": 5, "life": life, "ended": ended,
            "socket_type": 2, "proxy_idc": 1, "total_sent_packets": 3}))

    def after(self, seconds):
        self.now += seconds
        self.reports.settle()

    def open(self):
        return set(self.reports.flows.open)

    def test_flows_of_the_game_are_followed(self):
        self.take("a")
        self.take("b")
        self.take("b", ended=1)
        self.take("c", game_id=10002)
        self.reports.take('{"event": "commun')
        self.assertEqual(self.open(), {"a 5"})
        self.assertEqual(self.reports.happened()["reports"], 4)

    def test_a_flow_that_fell_silent_when_nobody_took_reports_is_told_apart(self):
        self.take("a")
        self.reports.nobody_takes_them()
        self.after(soak_reports.AFTER_S - 1)
        self.take("b")
        self.after(soak_reports.SILENT_S)
        self.assertEqual(self.open(), {"a 5", "b 5"})
        self.after(2)
        self.assertEqual(self.open(), set())
        self.assertEqual(sorted(self.reports.unheard), ["a 5", "b 5"])

    def test_one_that_fell_silent_at_another_time_is_open(self):
        self.take("before")
        self.after(soak_reports.BEFORE_S + 1)
        self.reports.nobody_takes_them()
        self.after(soak_reports.AFTER_S + 1)
        self.take("afterwards")
        self.after(soak_reports.SILENT_S + 1)
        self.assertEqual(self.open(), {"before 5", "afterwards 5"})

    def test_one_that_is_heard_of_again_is_open(self):
        self.take("a")
        self.reports.nobody_takes_them()
        self.after(soak_reports.AFTER_S + 1)
        self.take("a", life=6000)
        self.after(soak_reports.SILENT_S)
        self.assertEqual(self.open(), {"a 5"})

    def test_a_report_that_two_watchers_show_is_one(self):
        self.take("a", ended=1, life=9)
        self.take("a", ended=1, life=9)
        self.assertEqual(self.reports.flows.after_end, [])
        self.take("a", life=9)
        self.assertEqual(len(self.reports.flows.after_end), 1)


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
