"""Connections that end while the host's program waits for them do not end the Wine server. Wine 8's ends itself where
one call of select names a socket in two sets and the socket's peer ends it in the midst of that call
(devkit/winsock_host/merged_select.h)."""

import random
import socket
import threading
import time

import support

CONNECTIONS = 2000
LONGEST_PAUSE_S = 0.05
LONGEST_S = 120


class EndingServer:
    """Ends each connection a moment after its peer has ended its sending."""

    def __init__(self):
        self.listener = socket.create_server((support.SERVER, 0), backlog=128)
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            connection, _ = self.listener.accept()
            threading.Thread(target=self._end, args=(connection,), daemon=True).start()

    @staticmethod
    def _end(connection):
        with connection:
            connection.recv(1)
            time.sleep(random.uniform(0, LONGEST_PAUSE_S))


def main():
    arguments = support.parse_arguments()
    support.needs_bed()
    checks, runner, server = support.Checks(), support.Runner(arguments), EndingServer()
    folder = runner.stage(arguments.probes / "closing_polls.exe", "program.exe")
    words = [support.SERVER, str(server.port), str(CONNECTIONS)]
    result = runner.launch(folder, "program.exe", words, ["--bare"], timeout=LONGEST_S)
    checks.equal(result.output, f"{CONNECTIONS} connections have ended\n", f"what the program says\n{result.errors}")
    checks.equal(result.code, 0, "its exit code")
    checks.end()


if __name__ == "__main__":
    main()
