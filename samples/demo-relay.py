#!/usr/bin/env python3
"""A small example mail relay for the demo: answers POST /post/eml with the message source of
the requested uid, as {"<message id>": "<raw source>"}. It listens on 127.0.0.1 on a free port,
prints that port on its first line and serves until it is killed."""

import json
import sys
from http.server import BaseHTTPRequestHandler, HTTPServer

SOURCE = (
    "From: Jane Doe <jane@example.com>\r\n"
    "To: Bob Stone <bob@example.com>\r\n"
    "Subject: Lunch on Friday?\r\n"
    "\r\n"
    "Are you free at noon?\r\n"
)


class Relay(BaseHTTPRequestHandler):
    def do_POST(self):
        length = int(self.headers.get("Content-Length", "0"))
        try:
            body = json.loads(self.rfile.read(length) or b"{}")
        except ValueError:
            body = {}
        if self.path != "/post/eml" or not body.get("key"):
            answer = {"error": "unauthorised"}
        else:
            answer = {"<%s@example.com>" % body.get("uid", "0"): SOURCE}
        data = json.dumps(answer).encode()
        self.send_response(200)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(data)))
        self.end_headers()
        self.wfile.write(data)

    def log_message(self, *args):
        pass


server = HTTPServer(("127.0.0.1", 0), Relay)
print(server.server_address[1], flush=True)
server.serve_forever()
