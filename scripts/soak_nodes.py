"""The nodes of a long run, which die, return and misbehave."""
import random
import signal

import demo_bed

ADDRESSES = ("198.51.100.20", "198.51.100.21")
TROUBLE_S = 4.0    # from one trouble to the next
# What a node does for a while; between two of these it is well, or dead.
TROUBLES = ({"on_request": "silent"}, {"on_request": "close"}, {"result": 7}, {"server": "refuse"},
            {"data_up_loss": 40, "data_down_loss": 40, "probe_up_loss": 40, "probe_down_loss": 40},
            {"answer_delay_ms": 1500}, {"freeze": 1}, {"data_down_jitter_ms": 60})


class Nodes:
    """Two nodes, of which one at a time is in trouble: dead, or badly behaved. `number` is what they call
    themselves, the last node of a path."""

    def __init__(self, program, seed, number):
        self.program, self.number, self.random = program, number, random.Random(seed)
        self.alive = [None, None]
        self.deaths, self.troubles, self.carried = 0, 0, 0
        self.in_trouble = None
        for which in (0, 1):
            self.alive[which] = self.start(which)

    def start(self, which):
        return demo_bed.Node(self.program, f"node {'AB'[which]}", ADDRESSES[which], 7101 + which,
                             "--node-id", str(self.number))

    def next_trouble(self):
        """Ends the trouble of one node, and begins that of another or of the same."""
        if self.in_trouble is not None:
            if self.alive[self.in_trouble] is None:
                try:
                    self.alive[self.in_trouble] = self.start(self.in_trouble)
                except demo_bed.Failed:
                    return  # a socket of the game has its port for the moment: at the next turn
            else:
                self.alive[self.in_trouble].command(command="restore")
            self.in_trouble = None
            return
        which = self.in_trouble = self.random.randrange(2)
        if self.random.random() < 0.4:
            self.end(which, signal.SIGKILL)
            self.deaths += 1
        else:
            self.alive[which].set(**self.random.choice(TROUBLES))
            self.troubles += 1

    def end(self, which, how=signal.SIGTERM):
        node, self.alive[which] = self.alive[which], None
        if node is None:
            return
        self.carried += len(node.named("first_data"))
        node.process.send_signal(how)
        node.process.wait(timeout=demo_bed.TIMEOUT_S)

    def end_all(self):
        for which in (0, 1):
            self.end(which)

    def happened(self):
        return {"node deaths": self.deaths, "node troubles": self.troubles,
                "flows with data": self.carried}
