"""The reports of one game in a long run under Wine, as `vyr_client watch --json` prints them."""
import json
import threading
import time

# The library has room for 32 reports of traffic. If nobody takes them for longer, the last report of a flow can
# be among those that find no room, which is as it should be: a flow that was heard of last around the death of
# a watcher, and not again, is told apart.
BEFORE_S, AFTER_S, SILENT_S = 2.5, 5.0, 12.0


class Reports:
    """Any thread."""

    def __init__(self, flows, game_id):
        self.flows, self.game_id = flows, game_id
        self.lock = threading.Lock()
        self.count, self.switches = 0, 0
        self.heard_at = {}      # of each open flow
        self.unheard = []       # sockets whose last report had nobody to take it
        self.died_at = None

    def take(self, line):
        try:
            report = json.loads(line)
        except ValueError:
            return  # the line at which a watcher was killed
        with self.lock:
            self.count += 1
            self.switches += report["event"] == "recovery_switch"
            if report["event"] == "communication" and report["game_id"] == self.game_id:
                self._take_traffic(report)

    def _take_traffic(self, report):
        socket = f"{report['guid_str']} {report['create_tick']}"
        told = report["create_tick"] + report["life"]
        self.flows.take([[socket, report["ended"], told, report["life"], report["socket_type"], report["proxy_idc"],
                          report["total_sent_packets"]]])
        if socket in self.flows.open:
            self.heard_at[socket] = time.monotonic()
        else:
            self.heard_at.pop(socket, None)

    def nobody_takes_them(self):
        """From now on, for as long as a program takes to start."""
        self.died_at = time.monotonic()

    def settle(self):
        """To be called now and then."""
        with self.lock:
            died_at = self.died_at
            if died_at is None or time.monotonic() < died_at + AFTER_S + SILENT_S:
                return
            self.died_at = None
            for socket, at in list(self.heard_at.items()):
                if died_at - BEFORE_S <= at <= died_at + AFTER_S:
                    self.unheard.append(socket)
                    del self.heard_at[socket], self.flows.open[socket]

    def happened(self):
        return {"reports": self.count, "flows that moved": self.switches, "without a taker": len(self.unheard)}
