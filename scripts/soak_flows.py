"""Follows the reports of traffic that the client of a long run takes, socket by socket: which were
reported and their end was not, and which were reported once more after their end."""

SHOWN = ("tick", "life", "type", "node", "sent")   # of a report, after its socket and its end
MOST_KEPT = 12   # reports of an open socket: the latest


class Flows:
    """A socket that has ended stays so: what is reported of it later had been noted before."""

    def __init__(self):
        self.open = {}       # socket -> its latest reports
        self.ended = {}      # socket -> its last report
        self.after_end = []  # (socket, its last report, the one after it)

    def take(self, reports):
        """Takes reports in the order in which the client did."""
        for socket, is_last, *shown in reports:
            if is_last and self.ended.get(socket) == shown:
                continue  # a watcher was killed before it had given the report back, and the next shows it, too
            if socket in self.ended:
                self.after_end.append((socket, self.ended[socket], shown))
            elif is_last:
                self.open.pop(socket, None)
                self.ended[socket] = shown
            else:
                self.open[socket] = self.open.get(socket, [])[1 - MOST_KEPT:] + [shown]

    def left(self):
        """What is open or was reported after its end, for those who ask why."""
        return {"shown": SHOWN, "open": self.open, "after end": self.after_end}
