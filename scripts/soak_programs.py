"""Other programs of a long run under Wine, which come and go with the library: the sample game, and where they
were fetched, third-party programs with the work that the tests of mended programs give them."""
import os
import pathlib
import subprocess
import sys
import tempfile
import time

import demo_bed
import soak_clients

sys.path[:0] = [str(demo_bed.TREE / "tests" / "windows")]
import mended_works  # noqa: E402

SERVER = "198.51.100.11"
GAME_PORT = 7000
LONGEST_S = 60.0
PAUSE_S = 1.0      # between two programs


class SampleGame(mended_works.Work):
    """It plays for three seconds, with a stream and datagrams."""

    name, program = "sample-game", "vyr_game.exe"

    def __init__(self, native):
        self.native = native
        super().__init__(SERVER)

    def serve(self, address):
        game_server = demo_bed.GameServer(self.native, f"{address}:{GAME_PORT}")
        game_server.name = f"{address}:{GAME_PORT}"
        game_server.heard = []
        return game_server

    def arguments(self):
        return ["play", self.server.name, "--lobby", self.server.name, "--seconds", "3"]

    def result(self, folder, said):
        return b""  # what it says differs each time


def third_party_folder():
    """Where the third-party programs are, or None."""
    script = demo_bed.TREE / "scripts" / "fetch_programs.sh"
    if subprocess.run([script, "--check"], check=False).returncode != 0:
        print("the third-party programs are not there, and are left out: scripts/fetch_programs.sh gets them",
              flush=True)
        return None
    path = subprocess.run([script, "--path"], capture_output=True, text=True, check=True).stdout
    return pathlib.Path(path.strip())


class Programs:
    """One at a time, in turn."""

    def __init__(self, launcher, windows_game, native_game, folder):
        self.launcher, self.folder = launcher, folder
        third_party = third_party_folder()
        if third_party is None:
            self.works = [(SampleGame(native_game), windows_game)]
        else:
            self.works = [(work(SERVER), third_party / work.program) for work in mended_works.WORKS]
        self.results = {}     # of each work's first run
        self.ended, self.failed = {}, {}
        self.process, self.work, self.place, self.turn = None, None, None, 0
        self.begun_at = self.ended_at = 0.0

    def paths(self):
        return sorted({str(path) for _, path in self.works})

    def step(self):
        now = time.monotonic()
        if self.process is None:
            if now - self.ended_at >= PAUSE_S:
                self._start(now)
        elif self.process.poll() is not None or now - self.begun_at > LONGEST_S:
            self._look(now)

    def _start(self, now):
        self.work, path = self.works[self.turn % len(self.works)]
        self.turn, self.begun_at = self.turn + 1, now
        self.place = tempfile.TemporaryDirectory(prefix=self.work.name + "-", dir=self.folder,
                                                 ignore_cleanup_errors=True)
        place = pathlib.Path(self.place.name)
        self.work.prepare(place)
        command = demo_bed.wine(self.launcher, "--quiet", "--", demo_bed.windows_path(path), *self.work.arguments())
        with (place / "said.txt").open("wb") as said, (place / "errors.txt").open("wb") as errors:
            self.process = subprocess.Popen(command, cwd=place, stdin=subprocess.DEVNULL, stdout=said,
                                            stderr=errors, env={**os.environ, **self.work.environment})

    def _look(self, now):
        """At the one that has ended, or takes too long."""
        name, place = self.work.name, pathlib.Path(self.place.name)
        code = self.process.poll()
        if code is None:
            soak_clients.kill(pathlib.Path(self.work.program).name)
            self.process.wait(timeout=demo_bed.TIMEOUT_S)
        said = (place / "said.txt").read_text("utf-8", "replace")
        result = self.work.result(place, said)
        right = code == self.work.exit_code and self.results.setdefault(name, result) == result
        if not right:
            complained = (place / "errors.txt").read_text("utf-8", "replace")
            print(f"{name} ended with {code} after {now - self.begun_at:.1f} s: …{complained[-150:]!r}", flush=True)
        self.ended[name] = self.ended.get(name, 0) + 1
        self.failed[name] = self.failed.get(name, 0) + (not right)
        self.work.server.heard.clear()
        self.place.cleanup()
        self.process, self.ended_at = None, now

    def end(self):
        if self.process is not None:
            soak_clients.kill(pathlib.Path(self.work.program).name)
            self.process.wait(timeout=demo_bed.TIMEOUT_S)
            self.place.cleanup()
        for work, _ in self.works:
            if isinstance(work, SampleGame):
                work.server.end()

    def happened(self):
        return {"programs": sum(self.ended.values()), "programs that failed": sum(self.failed.values()),
                **{f"of {name}": f"{self.ended[name]}, failed {self.failed[name]}" for name in self.ended}}
