"""The route tables, from the file that a user edits to the behaviour of a running game: the client
program serves them in one process, and a listed game reads them in another and follows each change."""

import contextlib
import datetime
import os
import re
import shutil
import socket
import threading
import tomllib

import support
from conversation import Conversation, wait_until

KNOWN = "198.51.100.10"  # in the IP table; .11 is too, but blacklisted
SPUR = "198.51.100.12"  # in the spur list from the start
LATE_SPUR = "198.51.100.13"  # joins the spur list while the game runs
NODE = "198.51.100.20"

BEAT_S = 30
# Each periodic read may be late by a pass of the worker, and this machine may be busy.
LATEST_BEAT_S = 33
HOLD_S = 5  # fifty attempts, 100 ms apart

SPUR_CHANGED = "[Route][OnUpdate] Spur iplist content has changed, reload it!"
WORKER_BEGINS = "RelayMgr::WorkerProc, FD_SIZE="

GAMES = """
[[game]]
game_id = 10001
uin = '20001'
game_paths = ['{game}']
net_mode = ['TCP']
log_level = 0
log_path = '{game_logs}'
acc_mode = 1

[[game]]
game_id = 10002
uin = '20001'
game_paths = ['{patient}']
net_mode = ['TCP']
log_level = 0
log_path = '{patient_logs}'
acc_mode = 1
wait_route = 1
"""

TABLES = """
[[node]]
proxy_name = 'node one'
proxy_addr = '198.51.100.20'
proxy_port = {node_port}
proxy_idc = 1
section1_delay = 10

[[idc]]
game_idc = 1001
addresses = ['198.51.100.10', '198.51.100.11']

[[idc]]
game_idc = 1301
addresses = ['198.51.100.14']

[[route]]
game_idc = 1001
entry_name = 'east'
direct_delay = 60
ref_default = {{ node = 'node one', decision = '{decision}', section2_delay = 12, last_node = 'node one' }}

[[spur]]
game_idc = 1001
addresses = {spurs}

[[blacklist]]
type = 'TCP'
ip = '198.51.100.11'

[[blacklist]]
type = 'UDP'
port = 53
"""


class Client(Conversation):
    """`vyr_client serve`, and the file that it serves."""

    def __init__(self, bench):
        self.path = bench.runner.folder / "games.toml"
        self.bin = bench.runner.bin
        bench.edit(self)
        command = [self.bin / "vyr_client.exe", "serve", "--until-eof",
                   support.windows_path(self.path)]  # fmt: skip
        super().__init__(command, bench.runner.folder)

    def write(self, text):
        # Replaced as a whole, as editors do, so the client never sees half a file.
        draft = self.path.with_suffix(".draft")
        draft.write_text(text, encoding="utf-8", newline="\n")
        os.replace(draft, self.path)

    def text(self):
        return self.path.read_text(encoding="utf-8")


class Game(Conversation):
    """The probe, run by the launcher, and the library's log of it."""

    def __init__(self, bench, name):
        self.logs = bench.logs(name)
        self.connections = 0
        self.known_logs = set(self.logs.glob("*.log"))
        command = [bench.runner.launcher, support.windows_path(bench.folder / name)]
        super().__init__(command, bench.folder)

    def log(self):
        files = set(self.logs.glob("*.log")) - self.known_logs
        return b"".join(file.read_bytes() for file in files).decode("gbk", "replace")

    def chatter(self):
        """Produces more log lines, because the log collects lines before it writes them."""
        self.say("chatter 5")

    def waits_for_log(self, condition):
        """Waits for `condition`: a text, or a function of the whole log. Returns its last value."""
        test = (lambda log: condition in log) if isinstance(condition, str) else condition

        def look():
            if found := test(self.log()):
                return found
            if self.process.poll() is None:
                self.chatter()
            return found

        return wait_until(look)

    def connects(self, address, port):
        self.connections += 1
        return self.asked(f"connect {address} {port}", "connect")

    def echoes(self, number, text):
        return self.asked(f"echo {number} {text}", "echo: ") == f"echo: {text}"

    def decisions(self, log=None):
        """The worker's decisions so far: name, data centre, relayed, address, port."""
        return re.findall(
            r"Ready to make decision, destination\(.*?route info founded.(DECISION_\w+), "
            r"game IDC\((\d+)\).*?DecideRemoteAddr\.use_acc_=(\w+), ip=([\d.]+), port=(\d+)",
            log if log is not None else self.log(), re.DOTALL,
        )  # fmt: skip


class DeafNode:
    """A node that accepts connections and never answers."""

    def __init__(self):
        self.listener = socket.create_server((NODE, 0))
        self.port = self.listener.getsockname()[1]
        self.visits = []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            self.visits.append(self.listener.accept())


class Bench:
    def __init__(self, arguments):
        self.checks = support.Checks()
        self.runner = support.Runner(arguments)
        self.folder = self.runner.stage(arguments.probes / "route_game.exe", "Game.exe")
        shutil.copy(self.folder / "Game.exe", self.folder / "Patient.exe")
        for name in ("Game.exe", "Patient.exe"):
            self.logs(name).mkdir()
        self.node = DeafNode()
        self.servers = {ip: support.EchoServer(ip) for ip in (KNOWN, SPUR, LATE_SPUR)}
        self.decision = "DECISION_DIRECT"
        self.spurs = [SPUR]
        self.has_tables = False
        self.running = contextlib.ExitStack()
        self.client = Client(self)
        self.running.callback(self.client.end)
        self.checks.equal(self.client.line_with("ready"), "ready", "the client is ready")

    def logs(self, name):
        return self.folder / f"logs of {name}"

    def edit(self, client=None):
        """Writes the file with the given fields."""
        text = GAMES.format(
            game=support.windows_path(self.folder / "Game.exe"),
            game_logs=support.windows_path(self.logs("Game.exe")) + "\\",
            patient=support.windows_path(self.folder / "Patient.exe"),
            patient_logs=support.windows_path(self.logs("Patient.exe")) + "\\",
        )
        if self.has_tables:
            text += TABLES.format(
                node_port=self.node.port, decision=self.decision, spurs=self.spurs
            )
        (client or self.client).write(text)

    def taken_over(self, what):
        line = self.client.line_with("taken over: " + what)
        self.checks.that(line, f"the client takes over: {what}", line)

    def start(self, name):
        game = Game(self, name)
        self.running.callback(game.end)
        return game

    def dump(self):
        command = [self.runner.bin / "vyr_client.exe", "dump"]
        done = self.runner.wine(command, self.folder)
        self.checks.equal(done.returncode, 0, "dump works")
        return done.stdout.decode("utf-8").replace("\r\n", "\n")

    def logs_say(self, game, *all_words):
        for words in all_words:
            self.checks.that(
                game.waits_for_log(words), f"the log says {words!r}", game.log()[-3000:]
            )

    def connects(self, game, address):
        server = self.servers[address]
        answer = game.connects(address, server.port)
        wanted = f"connect: 0 peer: {address}:{server.port}"
        self.checks.equal(answer, wanted, "the game connects, and sees the server as its peer")

    def decides(self, game, count, decision, target):
        """Checks decision number `count`: its name, and where the worker connected."""
        found = game.waits_for_log(
            lambda log: len(all_found := game.decisions(log)) >= count and all_found
        )
        if not self.checks.that(found, f"decision {count} is made", game.log()[-3000:]):
            return
        relayed = "true" if target[0] == NODE else "false"
        wanted = (decision, "1001", relayed, target[0], str(target[1]))
        self.checks.equal(found[count - 1], wanted, f"decision {count}")


def when(log, words):
    """The time of the first log line with these words."""
    line = log[: log.index(words)].rpartition("\n")[2]
    stamp = re.match(r"\[([^]]*)\]", line).group(1)
    return datetime.datetime.strptime(stamp, "%Y-%m-%d %H:%M:%S.%f")


def seconds_between(log, first, second):
    return (when(log, second) - when(log, first)).total_seconds()


def check_start_without_tables(bench):
    """One game waits for the tables and then continues without them; the other continues at once."""
    checks = bench.checks
    patient, game = bench.start("Patient.exe"), bench.start("Game.exe")
    bench.connects(game, KNOWN)
    bench.logs_say(
        game, "[Route][Load] try to read route failed, wait_route=failed, try time=1, ",
        "[Route][NeedRelay] IP table not ready, ",
    )  # fmt: skip
    game.end()
    bench.connects(patient, KNOWN)
    checks.that(patient.echoes(0, "late"), "the delayed game continues, and its connection works")
    last = "[Route][Load] try to read route failed, wait_route=success, try time=50, "
    bench.logs_say(patient, last, "try interval_ms=100 ms", "[Route][NeedRelay] IP table not ready, ")
    patient.end()
    log = patient.log()
    first = "[Route][LoadRoute] open route table from shared memory failed,share mem is not exist!"
    checks.equal(log.count(first), 50, "fifty tries")
    if first in log and last in log:
        held = seconds_between(log, first, last)
        # The platform's clock may be slightly ahead of its sleeps.
        checks.that(HOLD_S - 0.2 <= held <= 3 * HOLD_S, "the start is delayed", f"{held} s")


def check_tables_while_the_start_is_held(bench):
    checks = bench.checks
    patient = bench.start("Patient.exe")
    patient.chatter()  # its first socket starts the library
    tried = wait_until(lambda: "[Route][LoadRoute] open route table" in patient.log())
    checks.that(tried, "the game's start is delayed again", patient.log())
    bench.has_tables = True
    bench.edit()
    bench.taken_over("route table")
    tries = patient.waits_for_log(
        lambda log: re.search(r"route success, wait_route=success, try time=(\d+),", log)
    )
    if checks.that(tries, "the game that waits gets the tables", patient.log()[-3000:]):
        number = int(tries.group(1))
        checks.that(1 < number < 50, "between two attempts", f"attempt {number}")
    patient.end()


def check_loads(bench):
    game = bench.start("Game.exe")
    bench.connects(game, KNOWN)
    bench.logs_say(
        game,
        "[Route][LoadRoute] open route table from shared memory success!",
        "[Route][LoadBlacklistTableFromMem] blacklist entries count(2)!",
        "[LoadSpurIplistTableFromMem] spur iptable entries count(1)!",
        "[Route][LoadIpTableFromMem] success ip count(2), level=0!",
        "[Route][Load] try to read route success, wait_route=failed, try time=1, ",
        f"[Route][NeedRelay] game server IP({KNOWN}) IDC(1001), will relay",
    )
    bench.decides(game, 1, "DECISION_DIRECT", (KNOWN, bench.servers[KNOWN].port))
    bench.checks.that(game.echoes(0, "first"), "the relayed connection works")
    # There is no listener, and no node is involved: a blacklisted address is not relayed.
    game.connects("198.51.100.11", 9)
    bench.logs_say(game, "[Route][NeedRelay] it is in acc blacklist, ")
    bench.connects(game, SPUR)
    bench.logs_say(game, f"[Route][NeedRelay] game server IP({SPUR}) IDC(1001), will relay")
    bench.decides(game, 2, "DECISION_DIRECT", (SPUR, bench.servers[SPUR].port))
    return game


def check_spur_list_before_the_beat(bench, game):
    bench.spurs.append(LATE_SPUR)
    bench.edit()
    bench.taken_over("spur list, 2 addresses")
    line = bench.client.line_with("notified").strip()
    bench.checks.equal(line, "1 notified", "the running game is told")
    port = bench.servers[LATE_SPUR].port
    bench.connects(game, LATE_SPUR)
    bench.logs_say(game, f"[Route][NeedRelay] IP({LATE_SPUR}:{port}) is not in ip table, ")
    bench.checks.that(SPUR_CHANGED not in game.log(), "nothing is read again before the next interval")


def check_spur_list_at_the_beat(bench, game):
    checks = bench.checks
    if checks.that(game.waits_for_log(SPUR_CHANGED), "the new spur list is read", game.log()[-3000:]):
        beat = seconds_between(game.log(), WORKER_BEGINS, SPUR_CHANGED)
        checks.that(BEAT_S - 0.2 <= beat <= LATEST_BEAT_S, "after one interval", f"{beat} s")
    bench.logs_say(game, "[LoadSpurIplistTableFromMem] spur iptable entries count(2)!")
    count = len(game.decisions())
    bench.connects(game, LATE_SPUR)
    bench.logs_say(game, f"[Route][NeedRelay] game server IP({LATE_SPUR}) IDC(1001), will relay")
    bench.decides(game, count + 1, bench.decision, (LATE_SPUR, bench.servers[LATE_SPUR].port))
    checks.that(game.echoes(game.connections - 1, "spur"), "the connection of the new address works")


def check_flips(bench, game):
    """Edits use both buffers in turn; each time, the next connection uses the newest table."""
    server = (KNOWN, bench.servers[KNOWN].port)
    node = (NODE, bench.node.port)
    for decision, target in (
        ("DECISION_ACCE", node),
        ("DECISION_OVER_MAX_DELAY", server),
        ("DECISION_FORCE_ACCE_AUTO", node),
        ("DECISION_NOT_ACCE_SAME_ISP", server),
    ):
        bench.decision = decision
        bench.edit()
        bench.taken_over("route table")
        count = len(game.decisions())
        visits = len(bench.node.visits)
        bench.connects(game, KNOWN)
        bench.decides(game, count + 1, decision, target)
        if target == node:
            visited = wait_until(lambda: len(bench.node.visits) > visits)
            bench.checks.that(visited, f"{decision}: the node gets the connection")
        else:
            works = game.echoes(game.connections - 1, decision)
            bench.checks.that(works, f"{decision}: the connection works")
    bench.checks.that(game.echoes(0, "still"), "the first connection still works")


def check_broken_edit(bench, game):
    checks = bench.checks
    before = bench.dump()
    kept = bench.decision
    bench.decision = "DECISION_FASTER"
    bench.edit()
    broken = next(
        number for number, line in enumerate(bench.client.text().splitlines(), 1)
        if "DECISION_FASTER" in line
    )  # fmt: skip
    path = support.windows_path(bench.client.path)
    line = bench.client.line_with("DECISION_FASTER")
    wanted = f"{path}:{broken}: key 'route[0].ref_default.decision': "
    checks.that(line.startswith(wanted), "the edit is refused with file, line and key", line)
    line = bench.client.line_with("not taken over")
    checks.equal(line, f"{path}: not taken over; what was served before stays", "and it reports it")
    checks.equal(bench.dump(), before, "the tables in force stay")
    bench.decision = kept
    count = len(game.decisions())
    bench.connects(game, KNOWN)
    bench.decides(game, count + 1, kept, (KNOWN, bench.servers[KNOWN].port))


def check_dump(bench):
    """The dump is lossless: it has the same content as the file, and serving it changes nothing."""
    bench.edit()
    line = bench.client.line_with("the file changed")
    checks = bench.checks
    checks.equal(line, "the file changed, the tables did not", "the corrected file equals what is served")
    dump = bench.dump()
    checks.equal(tomllib.loads(dump), tomllib.loads(bench.client.text()), "the dump is the file")
    bench.client.write("# what was dumped\n" + dump)
    line = bench.client.line_with("the file changed")
    checks.equal(line, "the file changed, the tables did not", "and can be served in its place")


def main():
    arguments = support.parse_arguments()
    support.needs_bed()
    bench = Bench(arguments)
    with bench.running:
        check_start_without_tables(bench)
        check_tables_while_the_start_is_held(bench)
        game = check_loads(bench)
        check_spur_list_before_the_beat(bench, game)
        check_flips(bench, game)
        check_broken_edit(bench, game)
        check_dump(bench)
        check_spur_list_at_the_beat(bench, game)
        bench.checks.equal(game.end(), 0, "the game's exit code")
    bench.checks.end()


if __name__ == "__main__":
    main()
