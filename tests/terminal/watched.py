"""A terminal (pyte's) that notes what a drawing must not do: scroll, run over the edge, or send a
sequence that is not known."""
import pyte
from pyte import modes

ALTERNATE = 1049 << 5  # pyte keeps private modes apart from the others by this shift


class WatchedScreen(pyte.Screen):
    def __init__(self, columns, rows):
        self.faults = []
        self.text = ""  # all that went to the ordinary screen
        self.disturbed = True  # until the next drawing begins: the one before was for another size
        super().__init__(columns, rows)
        self.stream = pyte.ByteStream(self)

    @property
    def modes(self):
        return {"alternate": ALTERNATE in self.mode, "cursor": modes.DECTCEM in self.mode,
                "autowrap": modes.DECAWM in self.mode}

    def shown(self):
        return [line.rstrip() for line in self.display]

    def feed(self, data):
        self.stream.feed(data)

    def set_size(self, columns, rows):
        self.resize(rows, columns)
        self.disturbed = True

    def cursor_position(self, line=None, column=None):
        super().cursor_position(line, column)
        self.disturbed = False

    def draw(self, data):
        if ALTERNATE not in self.mode:
            self.text += data
        elif self.cursor.x + len(data) > self.columns:
            self.fault(f"a line is wider than {self.columns} columns")
        super().draw(data)

    def linefeed(self):
        if ALTERNATE not in self.mode:
            self.text += "\n"
        super().linefeed()

    def index(self):
        if ALTERNATE in self.mode and self.cursor.y == self.lines - 1:
            self.fault("the screen scrolled")
        super().index()

    def erase_in_line(self, how=0, private=False):
        # Behind the last column the cursor still stands on it, and clears it.
        self.cursor.x = min(self.cursor.x, self.columns - 1)
        super().erase_in_line(how, private)

    def debug(self, *arguments, **_):
        self.faults.append(f"unknown sequence {arguments}")

    def fault(self, what):
        if not self.disturbed:
            self.faults.append(what)
