#!/usr/bin/env python3
"""Whole-process benchmark of vontu-nse on a Tern rich push, against curl making the same two
requests to the same loopback servers in the same run.

  rich push (200 KB image)  vs  one curl process: GET the image, then POST the delivered metric
                                (target 1.5x, peak RSS < 12 MB)

The tracking API is a TLS server on 127.0.0.1 that both reach as the production host
track.tern.dev:443 (--connect-to, with a throw-away CA made by the openssl tool); the image
comes from a plain HTTP server on 127.0.0.1. Both trust the same certificates: vontu-nse's
--cacert adds the CA to the system's store, as production verifies against that store, so
curl is given the system bundle with the CA appended (with the CA alone it would skip reading
the system's 140-odd certificates, some 20 ms that every production request pays). Prints the
median wall time and the peak RSS of each, and the ratio with its target.

Usage: bench/rich_push_bench.py [--runs N] [--build DIR]   (DIR defaults to build/release)
"""

import argparse
import http.server
import json
import os
import shutil
import ssl
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TRACKING_HOST = "track.tern.dev"
IMAGE_BYTES = 200 * 1024


def make_certificates(directory):
    """A CA and a certificate for the tracking host signed by it; returns (ca, cert, key)."""
    d = Path(directory)
    (d / "server.ext").write_text(
        "subjectAltName=DNS:%s\nbasicConstraints=CA:FALSE\n"
        "keyUsage=critical,digitalSignature\nextendedKeyUsage=serverAuth\n" % TRACKING_HOST)
    steps = [
        ["req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
         "-days", "2", "-subj", "/CN=Vontu Bench CA", "-addext",
         "basicConstraints=critical,CA:TRUE", "-addext", "keyUsage=critical,keyCertSign,cRLSign",
         "-keyout", d / "ca.key", "-out", d / "ca.pem"],
        ["req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj",
         "/CN=" + TRACKING_HOST, "-keyout", d / "server.key", "-out", d / "server.csr"],
        ["x509", "-req", "-in", d / "server.csr", "-CA", d / "ca.pem", "-CAkey", d / "ca.key",
         "-CAcreateserial", "-days", "2", "-extfile", d / "server.ext", "-out", d / "server.pem"],
    ]
    for step in steps:
        subprocess.run(["openssl"] + [str(a) for a in step], check=True, capture_output=True)
    return d / "ca.pem", d / "server.pem", d / "server.key"


def system_bundle_with(ca, directory):
    """The system's CA bundle (the one libcurl uses by default) with ca appended."""
    probe = subprocess.run(["curl-config", "--ca"], capture_output=True, text=True)
    system = Path(probe.stdout.strip() or "/etc/ssl/certs/ca-certificates.crt")
    bundle = Path(directory) / "bundle.pem"
    text = system.read_text() if system.exists() else ""
    if text and not text.endswith("\n"):
        text += "\n"
    bundle.write_text(text + Path(ca).read_text())
    return bundle


def png_of_size(size):
    """A PNG signature and header followed by filler: the attachment check reads the leading
    bytes only, and the transfer is what is measured."""
    header = bytes.fromhex("89504e470d0a1a0a0000000d494844520000000100000001080600000"
                           "01f15c489")
    return header + os.urandom(size - len(header))


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    image = b""

    def _answer(self, body, content_type):
        self.send_response(200)
        self.send_header("Content-Type", content_type)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def do_GET(self):
        self._answer(self.image, "image/png")

    def do_POST(self):
        self.rfile.read(int(self.headers.get("Content-Length", "0")))
        self._answer(b"{}", "application/json")

    def log_message(self, *args):
        pass


def serve(context=None):
    """Starts a threaded server on an ephemeral loopback port; returns (server, port)."""
    server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
    if context is not None:
        server.socket = context.wrap_socket(server.socket, server_side=True)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server, server.server_address[1]


def measure(argv, before=None):
    """Runs argv once under GNU time; returns (seconds, peak RSS in KiB, standard output)."""
    if before:
        before()
    with tempfile.NamedTemporaryFile("r") as report:
        start = time.perf_counter()
        proc = subprocess.run(["/usr/bin/time", "-f", "%M", "-o", report.name, "--"] + argv,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        elapsed = time.perf_counter() - start
        peak = report.read().split()
    if proc.returncode != 0:
        sys.exit("benchmark command failed (%d): %s" % (proc.returncode, " ".join(argv)))
    return elapsed, int(peak[-1]), proc.stdout


def series(argv, runs, before=None, check=None):
    first = measure(argv, before)  # warms the page cache
    if check:
        check(first[2])
    times, peaks = [], []
    for _ in range(runs):
        seconds, rss, _ = measure(argv, before)
        times.append(seconds)
        peaks.append(rss)
    return statistics.median(times), max(peaks)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=30)
    parser.add_argument("--build", default=str(ROOT / "build" / "release"))
    args = parser.parse_args()
    nse = str(Path(args.build) / "hosts" / "vontu-nse")

    with tempfile.TemporaryDirectory() as work:
        ca, certificate, key = make_certificates(work)
        bundle = system_bundle_with(ca, work)
        Handler.image = png_of_size(IMAGE_BYTES)
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        tls.load_cert_chain(certificate, key)
        tracking, tracking_port = serve(tls)
        images, image_port = serve()
        connect = "%s:443:127.0.0.1:%d" % (TRACKING_HOST, tracking_port)
        image_url = "http://127.0.0.1:%d/images/banner.png" % image_port
        try:
            home = Path(work) / "home"
            push = Path(work) / "push.json"
            push.write_text(json.dumps({
                "aps": {"alert": {"title": "Sale", "body": "Half price today"},
                        "mutable-content": 1},
                "TERN-Delivery-ID": "delivery-1", "TERN-Delivery-Token": "device-token-1",
                "TERN": {"push": {"image": image_url, "link": "https://vontu.app/sale"}}}))
            downloads = home / "apps" / "ios.vontu.NotificationService" / "tmp" / "tern_sdk"

            def forget_download():
                # Each run's attachment stays in the download directory: each run starts
                # with it empty, as the first push of a fresh install does.
                shutil.rmtree(downloads, ignore_errors=True)

            def attached(output):
                if not json.loads(output)["content"]["attachments"]:
                    sys.exit("vontu-nse delivered the rich push without its image")

            rich_push = series([nse, "--home", str(home), "--cacert", str(ca), "--connect-to",
                                connect, str(push)], args.runs, forget_download, attached)
            metric = json.dumps({"delivery_id": "delivery-1", "device_id": "device-token-1",
                                 "event": "delivered", "timestamp": int(time.time())},
                                separators=(",", ":"))
            curl = series(["curl", "-s", "-o", "/dev/null", image_url, "--next",
                           "-s", "-o", "/dev/null", "-X", "POST",
                           "-H", "Content-Type: application/json; charset=utf-8",
                           "-u", "site:key", "--data-binary", metric,
                           "--connect-to", connect, "--cacert", str(bundle),
                           "https://%s/push/events" % TRACKING_HOST], args.runs)
            ratio = rich_push[0] / curl[0]
            print("%-30s %7.2f ms %6d KiB | curl %7.2f ms %6d KiB | ratio %.2fx "
                  "(target 1.5x: %s) | RSS < 12 MB: %s" % (
                      "rich push, 200 KB image", rich_push[0] * 1e3, rich_push[1],
                      curl[0] * 1e3, curl[1], ratio, "met" if ratio <= 1.5 else "NOT met",
                      "met" if rich_push[1] < 12 * 1024 else "NOT met"))
        finally:
            tracking.shutdown()
            images.shutdown()


if __name__ == "__main__":
    main()
