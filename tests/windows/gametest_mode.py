"""The developers' library accelerates an unmodified program through a node, without a client program,
if there is a file beside the program. Without the file nothing is accelerated. The product itself
ignores the file."""

import real_programs
import relay_bench
import support
from conversation import wait_until
from relayed_programs import LONGEST_S
from web_server import WebServer

PLAYER = "198.51.100.1"
FILE = f"""[TestAccGame]
process_count=1
proc1=ffmpeg.exe
proxy_ip={relay_bench.NODE}
proxy_port={relay_bench.NODE_PORT}
net_mode=24
"""


class Stage(support.Stage):
    def __init__(self, arguments):
        super().__init__(arguments, arguments.node)
        self.program = real_programs.programs_folder(self.runner.kind) / "ffmpeg.exe"
        self.node = relay_bench.Node(arguments.node)

    def fetch(self, what, file, library, through_the_node):
        """Runs the program with or without the file beside it, and checks its work."""
        body, samples = real_programs.wave_file(seconds=5)
        server = WebServer({"": body})
        before = len(self.node.games())
        folder = self.runner.stage(self.program, "ffmpeg.exe")
        if file:
            (folder / "vyr_lsp_test.ini").write_text(file)
        url = f"http://{server.address}/tone.wav"
        done = self.runner.wine(
            [self.runner.launcher, "--trace", support.windows_path(folder / "trace.jsonl"),
             "--library", support.windows_path(library), "--",
             support.windows_path(folder / "ffmpeg.exe"), "-v", "error", "-i", url, "-f", "s16le",
             "-c:a", "pcm_s16le", "out.pcm"],
            folder, timeout=LONGEST_S,
        )  # fmt: skip
        out = folder / "out.pcm"
        got = out.read_bytes() if out.exists() else b""
        checks = self.checks
        checks.equal(done.returncode, 0, f"{what}: exit code")
        checks.that(got == samples, f"{what}: every sample arrived", done.stderr.decode("utf-8", "replace"))
        asked = [server.address] if through_the_node else []
        wait_until(lambda: len(self.node.games()) >= before + len(asked))
        checks.equal(self.node.games()[before:], asked, f"{what}: the servers requested from the node")
        peers = {relay_bench.NODE if through_the_node else PLAYER}
        checks.equal(server.peers, peers, f"{what}: the peers that the server saw")
        logs = len(list(folder.glob("*ffmpeg.exe*.log")))
        checks.equal(logs, int(through_the_node), f"{what}: logs beside the program")
        return support.Result(done, support.read_trace(folder / "trace.jsonl"), folder).debug_output()


def main():
    stage = Stage(relay_bench.parse_arguments())
    checks = stage.checks
    developers = stage.runner.probes / f"{stage.runner.library.stem}_test.dll"
    product = stage.runner.library
    try:
        said = stage.fetch("with the file", FILE, developers, True)
        wanted = f"Game Test Init, ip={relay_bench.NODE}, port={relay_bench.NODE_PORT}, net_mode=24, log_level=4"
        checks.that(wanted in said, "it says what it read", said)
        checks.that("GameTestModule ReadAccConfig returns done!" in said, "and that it uses it", said)
        said = stage.fetch("without the file", "", developers, False)
        checks.that("Game Test Init, log_path not exist=[" in said, "it says that there is no folder", said)
        said = stage.fetch("the product", FILE, product, False)
        checks.that("Game Test" not in said, "the product ignores the file", said)
    finally:
        stage.node.end()
    checks.end()


if __name__ == "__main__":
    main()
