"""A terminal's screen, as far as vyr_client uses one. Unknown control sequences are errors."""
import codecs
import re

SEQUENCE = re.compile(r"\x1b\[(\??)([\d;]*)([A-Za-z])")
MODES = {"1049": "alternate", "25": "cursor", "7": "autowrap"}


class Screen:
    def __init__(self, columns, rows):
        self.modes = {"alternate": False, "cursor": True, "autowrap": True}
        self.faults = []
        self.text = ""  # all that went to the ordinary screen
        self.rest = ""
        self.decoder = codecs.getincrementaldecoder("utf-8")()
        self.frames = 0
        self.resize(columns, rows)

    def resize(self, columns, rows):
        self.columns, self.rows = columns, rows
        self.lines = [[" "] * columns for _ in range(rows)]
        self.row = self.column = 0
        self.disturbed = True  # until the next drawing begins: the one before was for another size

    def shown(self):
        return ["".join(line).rstrip() for line in self.lines]

    def feed(self, data):
        self.rest += self.decoder.decode(data)
        while self.rest:
            if self.rest[0] == "\x1b":
                found = SEQUENCE.match(self.rest)
                if not found:
                    if len(self.rest) > 16:
                        self.faults.append(f"unknown sequence {self.rest[:16]!r}")
                        self.rest = self.rest[1:]
                        continue
                    return  # the rest of it is still to come
                self.sequence(*found.groups())
                self.rest = self.rest[found.end():]
            else:
                self.put(self.rest[0])
                self.rest = self.rest[1:]

    def sequence(self, private, number, letter):
        if private:
            if number not in MODES or letter not in "hl":
                self.faults.append(f"unknown mode {number}{letter}")
                return
            self.modes[MODES[number]] = letter == "h"
        elif letter == "H" and not number:
            self.row = self.column = 0
            self.frames += 1
            self.disturbed = False
        elif letter == "K" and not number:
            # Behind the last column the cursor still stands on it.
            self.erase(self.row, min(self.column, self.columns - 1))
        elif letter == "J" and not number:
            self.erase(self.row, min(self.column, self.columns - 1))
            for row in range(self.row + 1, self.rows):
                self.erase(row, 0)
        else:
            self.faults.append(f"unknown sequence {number}{letter}")

    def erase(self, row, column):
        self.lines[row][column:] = [" "] * (self.columns - column)

    def put(self, character):
        if not self.modes["alternate"]:
            self.text += character
            return
        if character == "\r":
            self.column = 0
        elif character == "\n":
            if self.row + 1 < self.rows:
                self.row += 1
            else:
                self.fault("the screen scrolled")
        elif character < " ":
            self.fault(f"control character {character!r}")
        elif self.column >= self.columns:
            self.fault(f"a line is wider than {self.columns} columns")
        else:
            self.lines[self.row][self.column] = character
            self.column += 1

    def fault(self, what):
        if not self.disturbed:
            self.faults.append(what)
