"""The client programs of a long run under Wine: one serves the tables, one takes the reports. They die and are
started again, and other programs die with a mutex in their hands."""
import contextlib
import os
import signal
import subprocess
import threading
import time

import bed_processes
import demo_bed

DEATH_S = 4.0     # from one death to the next
HELD_S = 0.3      # so long a program that dies with a mutex has held it
MUTEXES = ("vyr_comm_info_named_mutex", "vyr_route_named_mutex", "vyr_qos_acce_decision_named_mutex",
           "vyr_nego_real_ip_named_mutex", "vyr_restriction_named_mutex")


def kill(name, *words):
    """The number of Windows programs that were killed."""
    found = bed_processes.windows_processes(name, *words)
    for process in found:
        with contextlib.suppress(ProcessLookupError):
            os.kill(process, signal.SIGKILL)
    return len(found)


class Client:
    """vyr_client with these words; `take` gets each line that it prints."""

    def __init__(self, program, words, take):
        self.program, self.words, self.take = program, words, take
        self.starts, self.failures = 0, 0
        self.start()

    def start(self):
        self.process = subprocess.Popen(
            demo_bed.wine(self.program, *self.words, "--until-eof"), stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, encoding="utf-8", errors="replace")
        self.starts += 1
        threading.Thread(target=self._listen, args=(self.process,), daemon=True).start()

    def _listen(self, process):
        for line in process.stdout:
            self.take(line)

    def die(self):
        """Whether there was one that could."""
        died = kill(self.program.name, self.words[0])
        if died:
            self.process.wait(timeout=demo_bed.TIMEOUT_S)
            self.start()
        return died

    def keep(self):
        """Starts it again if it has ended by itself: the one before was not quite gone, for example."""
        if self.process.poll() is not None:
            self.failures += 1
            self.start()

    def end(self):
        with contextlib.suppress(OSError):
            self.process.stdin.close()
        self.process.wait(timeout=demo_bed.TIMEOUT_S)


class Clients:
    def __init__(self, programs, hold_mutex, tables, reports):
        self.hold_mutex, self.reports = hold_mutex, reports
        self.ready, self.turn, self.holders = threading.Event(), 0, []
        self.deaths = {"servers killed": 0, "watchers killed": 0, "died with a mutex": 0}
        program = programs / "vyr_client.exe"
        self.server = Client(program, ["serve", demo_bed.windows_path(tables)], self._take_word)
        demo_bed.wait_until(lambda: self.ready.is_set() or self.server.process.poll() is not None,
                            demo_bed.TIMEOUT_S, "vyr_client becomes ready")
        if not self.ready.is_set():
            raise demo_bed.Failed(f"vyr_client ends with {self.server.process.poll()}")
        self.watcher = Client(program, ["watch", "--follow", "--json"], reports.take)

    def _take_word(self, line):
        if "ready" in line:
            self.ready.set()

    def next_death(self):
        turn, self.turn = self.turn, self.turn + 1
        if turn % 2 == 0:
            self._hold(MUTEXES[turn // 2 % len(MUTEXES)])
        elif turn % 4 == 1:
            self.reports.nobody_takes_them()
            self.deaths["watchers killed"] += self.watcher.die()
        else:
            self.deaths["servers killed"] += self.server.die()

    def keep(self):
        self.server.keep()
        self.watcher.keep()

    def _hold(self, mutex):
        holder = subprocess.Popen(demo_bed.wine(self.hold_mutex, mutex), stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        ending = threading.Thread(target=self._die_holding, args=(holder,))
        ending.start()
        self.holders = [one for one in self.holders if one.is_alive()] + [ending]

    def _die_holding(self, holder):
        held = "held" in holder.stdout.readline()
        time.sleep(HELD_S)
        if kill(self.hold_mutex.name) and held:
            self.deaths["died with a mutex"] += 1
        holder.communicate(timeout=demo_bed.TIMEOUT_S)

    def end(self):
        for ending in self.holders:
            ending.join(timeout=demo_bed.TIMEOUT_S)
        self.watcher.end()
        self.server.end()

    def happened(self):
        return {**self.deaths, "client failures": self.server.failures + self.watcher.failures}
