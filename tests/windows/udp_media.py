"""A media program over relayed datagrams: it sends a film (MPEG-TS) to a native peer, and plays one
from a native RTSP server, which sends RTP to the source address of the player's datagrams."""

import contextlib
import socket
import struct
import subprocess
import threading
import time

import support
from conversation import wait_until

SERVER = "198.51.100.10"
FILM_PORT, STREAM_PORT, RTP_PORT = 5004, 8554, 6970
FILM_S = 2
FRAMES = 40  # of the film's fifty: the last ones may wait for the next one
TS_PACKET = 188
TS_IN_DATAGRAM = 7
LONGEST_S = 150


class FilmPeer:
    """Receives datagrams and records them with their senders."""

    def __init__(self, port=FILM_PORT):
        self.datagrams, self.peers = [], set()
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 21)
        self.socket.bind((SERVER, port))
        threading.Thread(target=self._take, daemon=True).start()

    def _take(self):
        with contextlib.suppress(OSError):
            while True:
                data, peer = self.socket.recvfrom(65536)
                self.datagrams.append(data)
                self.peers.add(peer[0])

    def whole(self):
        return b"".join(self.datagrams)


class RtspServer:
    """A streaming server with just enough functions for one film and one player. It sends to the source
    address of the player's first datagrams, as servers do for players behind address translation."""

    SDP = (f"v=0\r\no=- 1 1 IN IP4 {SERVER}\r\ns=film\r\nc=IN IP4 {SERVER}\r\nt=0 0\r\n"
           "m=video 0 RTP/AVP 33\r\na=control:track1\r\n")

    def __init__(self, film):
        self.film = film
        self.sent = 0
        self.punched = []  # the senders of datagrams to this server
        self.rtp, self.rtcp = (self._socket(RTP_PORT + i) for i in range(2))
        self.listener = socket.create_server((SERVER, STREAM_PORT))
        threading.Thread(target=self._serve, daemon=True).start()

    @staticmethod
    def _socket(port):
        one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        one.bind((SERVER, port))
        one.settimeout(LONGEST_S)
        return one

    def _serve(self):
        connection, _ = self.listener.accept()
        with contextlib.suppress(OSError), connection, connection.makefile("rb") as lines:
            while request := self._request(lines):
                connection.sendall(self._answer(*request))
                if request[0] == "PLAY":
                    threading.Thread(target=self._stream, daemon=True).start()

    @staticmethod
    def _request(lines):
        words = lines.readline().decode().split()
        headers = {}
        while line := lines.readline().decode().strip():
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        return (words[0], headers) if words else None

    def _answer(self, method, headers):
        extra, body = "", ""
        if method == "OPTIONS":
            extra = "Public: OPTIONS, DESCRIBE, SETUP, PLAY, TEARDOWN\r\n"
        elif method == "DESCRIBE":
            body = self.SDP
            extra = f"Content-Type: application/sdp\r\nContent-Length: {len(body)}\r\n"
        elif method == "SETUP":
            extra = (f"Transport: {headers['transport']};server_port={RTP_PORT}-{RTP_PORT + 1};"
                     f"source={SERVER}\r\n")
        return (f"RTSP/1.0 200 OK\r\nCSeq: {headers['cseq']}\r\nSession: 1;timeout=60\r\n{extra}\r\n"
                f"{body}").encode()

    def _stream(self):
        _, player = self.rtp.recvfrom(2048)  # shows the player's address
        self.punched.append(player)
        pieces = [self.film[at : at + TS_IN_DATAGRAM * TS_PACKET]
                  for at in range(0, len(self.film), TS_IN_DATAGRAM * TS_PACKET)]
        begin = time.monotonic()
        for number, piece in enumerate(pieces):
            due = FILM_S * number / len(pieces)
            time.sleep(max(0, begin + due - time.monotonic()))
            header = struct.pack(">BBHII", 0x80, 33, number, int(due * 90000), 0x5EED)
            self.rtp.sendto(header + piece, player)
            self.sent += 1


class Media:
    """`command` makes the command of the media program with the library from its arguments."""

    def __init__(self, command, folder, checks):
        self.command, self.folder, self.checks = command, folder, checks

    def run(self, *arguments):
        done = subprocess.run(
            self.command("-nostdin", "-v", "warning", *map(str, arguments)), cwd=self.folder,
            stdin=subprocess.DEVNULL, capture_output=True, timeout=LONGEST_S, check=False,
        )  # fmt: skip
        errors = done.stderr.decode("utf-8", "replace")
        self.checks.equal(done.returncode, 0, f"the media program's exit code\n{errors}")
        return errors

    def sends(self, node_address):
        """Generates a film and sends it in real time; what is sent is also written to a file. Each frame
        leaves when it is made, and a second of silence keeps the program running after the last one: the
        relay is in its process, and does not wait for datagrams that are sent just before the process ends."""
        checks, peer = self.checks, FilmPeer()
        film = self.folder / "film.ts"
        self.run("-re", "-f", "lavfi", "-i", f"testsrc=size=320x240:rate=25:duration={FILM_S}",
                 "-re", "-f", "lavfi", "-t", str(FILM_S + 1), "-i", "anullsrc",
                 "-c:v", "mpeg2video", "-b:v", "1M", "-map", "0", "-f", "tee",
                 f"[f=mpegts:flush_packets=1]udp\\://{SERVER}\\:{FILM_PORT}?pkt_size=1316|[f=mpegts]film.ts",
                 "-map", "1", "-f", "null", "-")
        sent = film.read_bytes() if film.exists() else b""
        wait_until(lambda: len(peer.whole()) >= len(sent))
        checks.that(len(sent) > 100 * TS_PACKET, "the media program has sent a film")
        checks.that(peer.whole() == sent, "every packet arrived as it was sent",
                    f"{len(sent)} bytes sent, {len(peer.whole())} received")
        checks.equal(peer.peers, {node_address}, "the film comes from the node")
        return sent

    def receives(self, film, node_address):
        """Plays the film from a server; what it plays equals the film, frame by frame."""
        checks, server = self.checks, RtspServer(film)
        errors = self.run("-rtsp_transport", "udp", "-analyzeduration", 200000,
                          "-i", f"rtsp://{SERVER}:{STREAM_PORT}/film", "-c", "copy",
                          "-frames:v", FRAMES, "-f", "mpeg2video", "played.m2v")
        self.run("-i", "film.ts", "-c", "copy", "-frames:v", FRAMES, "-f", "mpeg2video", "held.m2v")
        played, held = ((self.folder / name) for name in ("played.m2v", "held.m2v"))
        held = held.read_bytes()
        played = played.read_bytes() if played.exists() else b""
        checks.that(len(held) > 10000 and played == held, "every frame equals what the server sent",
                    f"{len(held)} bytes held, {len(played)} played, {server.sent} datagrams sent")
        checks.equal({peer[0] for peer in server.punched}, {node_address},
                     "the server sees the node as its peer")
        lost = [line for line in errors.splitlines() if "missed" in line or "reorder" in line]
        checks.equal(lost, [], "the player misses nothing")
