#!/usr/bin/env python3
"""A tracking API on 127.0.0.1 for the install check: answers every PUT and POST with 200 {},
appends "METHOD PATH" of each to the log file, and writes its port to the port file."""
import http.server
import sys

log_path, port_path = sys.argv[1], sys.argv[2]


class Handler(http.server.BaseHTTPRequestHandler):
    def answer(self):
        length = int(self.headers.get("Content-Length") or 0)
        self.rfile.read(length)
        with open(log_path, "a") as log:
            log.write(f"{self.command} {self.path}\n")
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", "2")
        self.end_headers()
        self.wfile.write(b"{}")

    do_PUT = do_POST = do_DELETE = answer

    def log_message(self, *args):
        pass


server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
with open(port_path + ".tmp", "w") as port:
    port.write(str(server.server_address[1]))
__import__("os").rename(port_path + ".tmp", port_path)
server.serve_forever()
