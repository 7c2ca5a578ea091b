"""Runs the sample game once, while its node's link goes bad, and combines what the game, the nodes
and the library's log report about it."""
import dataclasses
import datetime
import json
import re
import subprocess
import time
import tomllib

import demo_bed

SERVER = "198.51.100.10:7000"
NODE_A, NODE_B = "198.51.100.20", "198.51.100.21"
LAST_NODE = 7      # of both paths; a flow only moves between paths with the same last node
HEALTHY_S = 6      # before the trouble: longer than the time in which a new link is not judged
TAIL_S = 2         # after the switch
PATIENCE_S = 40    # from the trouble to the switch
ATTEMPTS = 3
LINK = {"data_up_loss": 30, "data_down_loss": 30, "probe_up_loss": 30, "probe_down_loss": 30}

# The library's log texts, in the order of the events.
MOMENTS = {
    "noticed": "requesting high freq test",
    "judged": "switching is firing",
    "verified": "Verifying result=succeeded",
    "arrived": "NotifySwitchState, state=2",
}
LINE = re.compile(r"\[(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})\]\[\d+\]\[\d\](.*)")

# Thresholds that a deployment could use. A loss of 10 % over two seconds, or of 5 % over five, starts
# a burst of probes, and the probes of one second decide. A node on trial may leave a sixth of its
# probes unanswered, because the answers to the last ones are still in flight when it is judged. Each
# flow moves once: after a move, the old link's loss would still count against the new one.
GAME = """
[[game]]
game_id = {number}
uin = '20001'
game_paths = [{games}]
net_mode = ['TCP', 'UDP']
log_level = 4
log_path = '{logs}'
acc_mode = 1

link_switch_mask = 1
list_text = '{number}'
lost_calc_unit_size = 1000
short_cycle = 2
long_cycle = 5
data_link_short_cycle_lost = 10
data_link_long_cycle_lost = 5
data_link_short_cycle_pkg = 20
data_link_long_cycle_pkg = 30
recovery_window_word = 200
norm_test_interval = 500
high_freq_test_interval = 50
high_freq_test_time = 1000
max_high_freq_test_count = 3
watching_time_span = 30
ignore_high_freq_test_time = 5
max_valid_test_delay = 1000
max_real_route_lost = 20
max_delay_avg = 300
max_delay_amp = 200
max_link_except_rep_num = 6

switch_open = 1
game_link_switch_open = 1
link_switch_min_inter = 30
max_link_switch_count = 1
switching_high_freq_test_interval = 30
switching_high_freq_test_time = 1000
switching_max_real_route_lost = 15
switching_max_delay_avg = 80
switching_max_delay_amp = 20
"""

# start_nodes makes the ways through the nodes as slow as they are here.
ROUTES = """
[[node]]
proxy_name = 'node A'
proxy_addr = '198.51.100.20'
proxy_port = 9000
proxy_idc = 1
flag = 6
section1_delay = 12
surport_isps = 0xffffffff

[[node]]
proxy_name = 'node B'
proxy_addr = '198.51.100.21'
proxy_port = 9000
proxy_idc = 2
flag = 6
section1_delay = 20
surport_isps = 0xffffffff

[[idc]]
game_idc = 1001
addresses = ['198.51.100.10', '198.51.100.11']

[[route]]
game_idc = 1001
entry_name = 'east'
direct_delay = 60
ref_default = { node = 'node A', section2_delay = 10, last_node = 7 }
top_refs = [
  { node = 'node A', section2_delay = 10, last_node = 7 },
  { node = 'node B', section2_delay = 10, last_node = 7 },
]
switch_groups = [
  { last_node = 7, candidates = [
    { node = 'node A', section2_delay = 10, last_node = 7 },
    { node = 'node B', section2_delay = 10, last_node = 7 },
  ] },
]
"""


def game(programs, logs, number=10001):
    names = ", ".join(f"'{program}'" for program in programs)
    return GAME.format(games=names, logs=logs, number=number)


@dataclasses.dataclass
class Ways:
    """The delays of ROUTES, there and back, in milliseconds."""
    direct: int
    to_node: dict       # by the node's name
    through_node: dict  # to the game server


def ways():
    tables = tomllib.loads(ROUTES)
    route = tables["route"][0]
    to_node = {node["proxy_name"]: node["section1_delay"] for node in tables["node"]}
    onward = {ref["node"]: ref["section2_delay"] for ref in route["top_refs"]}
    return Ways(route["direct_delay"], to_node,
                {name: delay + onward[name] for name, delay in to_node.items()})


def start_nodes(program):
    """Sets the nodes' delays: probes go to the node and back, data to the game server and back. B is
    farther away than A, as it would be if A was chosen first. So no answer through A arrives after the
    first one through B, at which the library closes A's socket."""
    delays = ways()

    def node(name, address, control_port):
        lanes = (("probe", delays.to_node[name]), ("data", delays.through_node[name]))
        words = [word for lane, delay in lanes for direction in ("up", "down")
                 for word in (f"--{lane}-{direction}-delay-ms", str(delay // 2))]
        return demo_bed.Node(program, name, address, control_port, "--node-id", str(LAST_NODE),
                             *words)

    return node("node A", NODE_A, 7103), node("node B", NODE_B, 7104)


@dataclasses.dataclass
class Facts:
    game: dict      # the game's report on its server
    summary: dict   # the game's whole report
    began: float    # when the trouble began, in seconds since 1970
    moments: dict   # name: (seconds since then, the library's log line)
    lost_up: int = 0    # by the network, which the nodes simulate
    lost_down: int = 0

    @property
    def library_lost_up(self):
        return self.game["sent"] - self.game["arrived"] - self.lost_up

    @property
    def library_lost_down(self):
        return self.game["arrived"] - self.game["received"] - self.lost_down

    def line(self):
        moments = ", ".join(f"{name} {at:.2f} s" for name, (at, _) in self.moments.items())
        return (f"{moments}; {self.game['sent']} sent, {self.lost_up} and {self.lost_down} lost by "
                f"the network, {self.library_lost_up} and {self.library_lost_down} by the library; "
                f"port {self.game['own_port_begin']}, then {self.game['own_port_end']}")

    def troubles(self, machine_lost=0):
        """A description of everything that is wrong; empty if nothing is. Datagrams that the machine
        dropped because its buffers were full do not count."""
        game = self.game
        # A delay appears in the probes only, so nothing has to be noticed before.
        wrong = [f"{name}: not in the log" for name in MOMENTS
                 if name not in self.moments and name != "noticed"]
        times = [self.moments[name][0] for name in MOMENTS if name in self.moments]
        if times != sorted(times):
            wrong.append(f"out of order: {self.moments}")
        if not 0 <= self.library_lost_up + self.library_lost_down <= machine_lost:
            wrong.append(f"lost by the library: {self.library_lost_up} up, "
                         f"{self.library_lost_down} down; by the machine: {machine_lost}")
        for name in ("duplicated", "reordered", "source_mismatches", "damaged", "send_errors"):
            if game[name]:
                wrong.append(f"{name}: {game[name]}")
        if self.summary["strangers"] or self.summary["receive_errors"]:
            wrong.append(f"strangers or errors: {self.summary}")
        if game["own_port_begin"] == 0 or game["own_port_begin"] != game["own_port_end"]:
            wrong.append(f"the port: {game['own_port_begin']}, then {game['own_port_end']}")
        return wrong


def read_moments(log, began):
    """The first time of each moment after the trouble began."""
    moments = {}
    for line in log.splitlines():
        if not (match := LINE.match(line)):
            continue
        at = datetime.datetime.strptime(match[1], "%Y-%m-%d %H:%M:%S.%f").timestamp() - began
        for name, words in MOMENTS.items():
            if at >= 0 and words in line and name not in moments:
                moments[name] = (at, match[2].strip())
    return moments


class Run:
    """`game` is the command of the game, `logs` the folder of the library's logs, which is empty."""

    def __init__(self, nodes, game, logs):
        self.a, self.b = nodes
        self.command = [*game, "play", SERVER, "--rate", "30", "--seconds", "0", "--until-eof",
                        "--lobby", SERVER, "--ping", "--linger-ms", "5000", "--json"]
        self.logs = logs

    def play(self, seed, link=None):
        for _ in range(ATTEMPTS):
            if facts := self._attempt(seed, link or LINK):
                return facts
        raise demo_bed.Failed("the flow moves before its link is bad: this machine is too busy")

    def _attempt(self, seed, link):
        """None if this machine itself was a bad link, before the link was made bad."""
        a, b = self.a, self.b
        for node in (a, b):
            node.command(command="restore")
        a.set(seed=seed)  # takes effect when a flow begins
        known_a, known_b = len(a.events), len(b.events)
        known_logs = set(self.logs.glob("*.log"))
        game = subprocess.Popen(self.command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                text=True)
        try:
            demo_bed.wait_until(lambda: a.named("first_data", known_a), PATIENCE_S,
                                "the game's flow through node A")
            time.sleep(HEALTHY_S)
            began = time.time()
            if b.named("request", known_b):
                return None
            a.set(**link)
            demo_bed.wait_until(
                lambda: [event for event in b.named("first_data", known_b)
                         if event["direction"] == "to_client"], PATIENCE_S, "the flow on node B")
            time.sleep(TAIL_S)
        finally:
            said = self._end(game)
        if game.returncode != 0:
            raise demo_bed.Failed(f"the game ended with {game.returncode}")
        summary = json.loads(said.splitlines()[-1])
        new_logs = set(self.logs.glob("*.log")) - known_logs
        log = b"".join(file.read_bytes() for file in new_logs).decode("gbk", "replace")
        facts = Facts(summary["servers"][0], summary, began, read_moments(log, began))
        for node, known in ((a, known_a), (b, known_b)):
            self._add_losses(node, known, facts)
        return facts

    @staticmethod
    def _end(game):
        try:
            return game.communicate(timeout=demo_bed.TIMEOUT_S)[0]
        except subprocess.TimeoutExpired:
            raise demo_bed.Failed("the game does not end") from None

    @staticmethod
    def _add_losses(node, known, facts):
        for flow in node.flows(known).values():
            facts.lost_up += flow["dropped_up"]
            facts.lost_down += flow["dropped_down"]
            # The library's end message can be lost like anything else.
            if flow["open"] and flow["dropped_up"] > 0:
                facts.lost_up -= 1
