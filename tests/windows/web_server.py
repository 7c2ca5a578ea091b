"""An HTTP server as a game server, for programs whose traffic can be recognised by what they fetch."""

import hashlib
import http.server
import threading

import relay_bench


class WebServer:
    """Serves bodies by path (the one named "" at all other paths), hashes posted data, and records the
    peers."""

    def __init__(self, bodies, taken=b"taken", at_once=5, address=relay_bench.SERVER,
                 content_type="application/octet-stream"):  # fmt: skip
        bench = self
        self.uploads = []
        self.peers = set()

        class Handler(http.server.BaseHTTPRequestHandler):
            def answer(self, content):
                bench.peers.add(self.client_address[0])
                self.send_response(200)
                self.send_header("Content-Type", content_type)
                self.send_header("Content-Length", str(len(content)))
                self.end_headers()
                self.wfile.write(content)

            def do_GET(self):
                self.answer(bodies.get(self.path, bodies[""]))

            def do_POST(self):
                data = self.rfile.read(int(self.headers["Content-Length"]))
                bench.uploads.append(hashlib.sha256(data).hexdigest())
                self.answer(taken)

            def log_message(self, *_):
                pass

        class HttpServer(http.server.ThreadingHTTPServer):
            request_queue_size = at_once

        self.server = HttpServer((address, 0), Handler)
        self.address = f"{address}:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
