"""What run_mended.py says of tests and lists that are right, wrong and stale."""
import pathlib
import stat
import tempfile
import unittest

import run_mended
from run_mended import Listed, Run

BITS = {"reset": 4, "start": 0x400, "all": 0x404}
# Stands for scenario_tests: Tcp.Resets fails where reset is mended, Tcp.Hangs says no more.
BINARY = """#!/bin/sh
IFS=:
for test in $GTEST_FILTER; do
  echo "[ RUN      ] $test"
  if [ "$test" = Tcp.Hangs ]; then exit 1; fi
  if [ "$test" = Tcp.Resets ] && [ $((VYR_MENDED & 4)) != 0 ]; then
    echo "it was a reset"
    echo "[  FAILED  ] $test (1 ms)"
  else
    echo "[       OK ] $test (1 ms)"
  fi
done
"""


class List(unittest.TestCase):
    def read(self, text):
        return run_mended.read_list(text, ["Tcp.Resets", "Tcp.Waits", "Udp.Sends"], BITS)

    def test_names_tests_suites_and_mendings(self):
        listed, wrong = self.read("# why\n\nTcp.*  start,reset  both\nUdp.Sends  all  any\n")
        self.assertEqual(wrong, [])
        self.assertEqual(listed, {"Tcp.Resets": Listed(3, 0x404), "Tcp.Waits": Listed(3, 0x404),
                                  "Udp.Sends": Listed(4, 0x404)})

    def test_what_is_unknown_or_twice_is_an_error(self):
        for text, error in (("Tcp.Gone  reset  why", "no test of a game"),
                            ("Gone.*  reset  why", "no test of a game"),
                            ("Tcp.Waits  rest  why", "no mending is called rest"),
                            ("Tcp.Waits  reset", "not 'Suite.Test"),
                            ("Tcp.Waits  reset  a\nTcp.Waits  start  b", "listed twice")):
            self.assertIn(error, "\n".join(self.read(text)[1]), text)


class Runs(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.binary = pathlib.Path(self.folder.name, "tests")
        self.binary.write_text(BINARY, encoding="utf-8")
        self.binary.chmod(self.binary.stat().st_mode | stat.S_IXUSR)

    def perform(self, *run):
        return "\n".join(run_mended.perform(str(self.binary), Run(*run)))

    def test_a_listed_test_fails_mended_and_passes_without_its_mending(self):
        runs = run_mended.plan(["Tcp.Resets", "Tcp.Waits"], {"Tcp.Resets": Listed(1, 4)}, 0x404)
        self.assertCountEqual(runs, [Run(0x400, ["Tcp.Resets"], False),
                                     Run(0x404, ["Tcp.Resets"], True),
                                     Run(0x404, ["Tcp.Waits"], False)])
        for run in runs:
            self.assertEqual(self.perform(*run), "")

    def test_a_test_that_is_not_listed_must_pass(self):
        self.assertIn("Tcp.Resets fails", self.perform(0x404, ["Tcp.Waits", "Tcp.Resets"], False))
        self.assertIn("it was a reset", self.perform(0x404, ["Tcp.Waits", "Tcp.Resets"], False))

    def test_a_listed_test_that_passes_is_stale(self):
        self.assertIn("take it off", self.perform(0x404, ["Tcp.Waits", "Tcp.Resets"], True))

    def test_the_wrong_mending_is_no_reason(self):
        self.assertIn("Tcp.Resets fails", self.perform(0x404 & ~0x400, ["Tcp.Resets"], False))

    def test_a_test_that_does_not_end_is_an_error_either_way(self):
        for must_fail in (False, True):
            self.assertIn("did not end", self.perform(0x404, ["Tcp.Hangs"], must_fail))


class Sources(unittest.TestCase):
    ROOT = pathlib.Path(__file__).parents[3]

    def test_tests_with_a_game_are_found_and_those_that_choose_are_not(self):
        suites = run_mended.suites_with_a_game(self.ROOT)
        self.assertLessEqual({"TcpStream", "UdpRelay", "Life", "SwitchSwarm", "Startup"}, suites)
        self.assertFalse({"MendedStream", "UnmendedNames", "SimTcp", "NodeCarry"} & suites)

    def test_the_mendings_have_their_bits(self):
        bits = run_mended.bits_of_mendings(self.ROOT)
        self.assertEqual((bits["half-close"], bits["refusal"], bits["all"]), (1, 0x2000, 0x3fff))


if __name__ == "__main__":
    unittest.main()
