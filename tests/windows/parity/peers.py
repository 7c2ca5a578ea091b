"""The servers that the observations are made against, native programs of the bed.

A stream server reads one line, ID VERB [ARGUMENT], and then does what the verb says:
  echo          sends back what comes, until the game's end
  say TEXT      sends the text, then echoes
  late TEXT     the same half a second later
  sink          reads to the game's end
  hold          reads nothing for a while, then everything
  all           reads to the game's end, then sends all of it back
  all-late      the same, half a second later
  half [TEXT]   sends the text, ends its sending, reads to the game's end
  bye [TEXT]    sends the text and closes
  reset [TEXT]  sends the text, and a moment later resets the connection
  pour N        sends N bytes and closes
  urgent        sends "ab", then "!" as urgent data, then "cd", then echoes
  urgent-sink   reads to the game's end, counting urgent bytes
  saw ID        answers what the server saw of that connection: bytes and how it ended
A datagram server answers by the first word of each datagram, in the same manner."""

import contextlib
import select
import socket
import struct
import threading
import time

SERVER, SECOND, DIRECT = "198.51.100.10", "198.51.100.11", "198.51.100.15"
PORT, OTHER_PORT, REFUSED_PORT, FULL_PORT, FIRST_PORT = range(7100, 7105)
MOMENT_S = 0.5
HOLD_S = 1.0
PATIENCE_S = 3.0


class Streams:
    def __init__(self):
        self.seen = {}
        self.news = threading.Condition()
        self.full = []
        for address in (SERVER, SECOND, DIRECT):
            self._listen(address, PORT, self._serve)
        self._listen(SERVER, FIRST_PORT, self._speak_first)
        self._fill()

    def _listen(self, address, port, serve):
        listener = socket.create_server((address, port), backlog=64)

        def accept():
            while True:
                connection, _ = listener.accept()
                threading.Thread(target=self._guarded, args=(serve, connection), daemon=True).start()

        threading.Thread(target=accept, daemon=True).start()

    def _fill(self):
        """A listener whose queue is full: it leaves a handshake without an answer."""
        listener = socket.create_server((SERVER, FULL_PORT), backlog=0)
        self.full.append(listener)
        for _ in range(4):
            one = socket.socket()
            one.setblocking(False)
            one.connect_ex((SERVER, FULL_PORT))
            self.full.append(one)

    @staticmethod
    def _guarded(serve, connection):
        with connection, contextlib.suppress(OSError):
            serve(connection)

    @staticmethod
    def _speak_first(connection):
        connection.sendall(b"welcome")
        connection.recv(1)

    def _serve(self, connection):
        line = b""
        while not line.endswith(b"\n"):
            byte = connection.recv(1)
            if not byte:
                return
            line += byte
        name, verb, *rest = line.decode().split()
        text = rest[0].encode() if rest else b""
        if verb == "saw":
            return self._tell(connection, text.decode())
        seen = {"bytes": 0, "end": "nothing", "note": ""}
        try:
            getattr(self, "do_" + verb.replace("-", "_"))(connection, text, seen)
        except OSError as error:
            seen["end"] = type(error).__name__
        with self.news:
            self.seen[name] = seen
            self.news.notify_all()

    def _tell(self, connection, name):
        with self.news:
            self.news.wait_for(lambda: name in self.seen, PATIENCE_S)
            seen = self.seen.get(name)
        text = f"{seen['bytes']} bytes, {seen['end']}{seen['note']}" if seen else "nothing of an end"
        connection.sendall(text.encode())
        connection.recv(1)

    @staticmethod
    def _read(connection, seen, use=None):
        while data := connection.recv(65536):
            seen["bytes"] += len(data)
            if use:
                use(data)
        seen["end"] = "end"

    def do_echo(self, connection, _, seen):
        self._read(connection, seen, connection.sendall)

    def do_say(self, connection, text, seen):
        connection.sendall(text)
        self.do_echo(connection, text, seen)

    def do_late(self, connection, text, seen):
        time.sleep(MOMENT_S)
        self.do_say(connection, text, seen)

    def do_sink(self, connection, _, seen):
        self._read(connection, seen)

    def do_hold(self, connection, _, seen):
        time.sleep(HOLD_S)
        self._read(connection, seen)

    def do_all(self, connection, _, seen, pause_s=0.0):
        data = []
        self._read(connection, seen, data.append)
        time.sleep(pause_s)
        connection.sendall(b"".join(data))

    def do_all_late(self, connection, text, seen):
        self.do_all(connection, text, seen, MOMENT_S)

    def do_half(self, connection, text, seen):
        connection.sendall(text)
        connection.shutdown(socket.SHUT_WR)
        self._read(connection, seen)

    def do_bye(self, connection, text, seen):
        connection.sendall(text)

    def do_reset(self, connection, text, seen):
        connection.sendall(text)
        time.sleep(MOMENT_S if text else 0.05)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def do_pour(self, connection, text, seen):
        connection.sendall(b"p" * int(text))

    def do_urgent(self, connection, text, seen):
        connection.sendall(b"ab")
        time.sleep(0.1)
        connection.send(b"!", socket.MSG_OOB)
        time.sleep(0.1)
        connection.sendall(b"cd")
        self.do_echo(connection, text, seen)

    def do_urgent_sink(self, connection, _, seen):
        urgent = b""
        while True:
            readable, _, except_ = select.select([connection], [], [connection], PATIENCE_S)
            if except_ and not urgent:
                urgent = connection.recv(1, socket.MSG_OOB)
                seen["note"] = f", urgent {urgent.decode()}"
                continue
            if not readable:
                break
            data = connection.recv(65536)
            if not data:
                seen["end"] = "end"
                break
            seen["bytes"] += len(data)


class Datagrams:
    def __init__(self):
        self.main = self._serve(SERVER, PORT)
        self.other = self._serve(SERVER, OTHER_PORT)
        self.second = self._serve(SECOND, PORT)
        self.direct = self._serve(DIRECT, PORT)

    def _serve(self, address, port):
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((address, port))
        threading.Thread(target=self._answer, args=(s,), daemon=True).start()
        return s

    def _answer(self, s):
        while True:
            data, peer = s.recvfrom(65536)
            verb, _, text = data.partition(b" ")
            threading.Thread(target=self._act, args=(s, verb.decode("latin-1"), text, peer), daemon=True).start()

    def _act(self, s, verb, text, peer):
        with contextlib.suppress(OSError):
            if verb == "echo":
                s.sendto(text, peer)
            elif verb == "twice":
                s.sendto(text, peer)
                s.sendto(text + b" again", peer)
            elif verb == "other":
                self.other.sendto(text, peer)
            elif verb == "big":
                s.sendto(b"b" * int(text), peer)
            elif verb == "empty":
                s.sendto(b"", peer)
            elif verb == "late":
                time.sleep(MOMENT_S)
                s.sendto(text, peer)
