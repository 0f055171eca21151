#!/usr/bin/env python3
"""Whole-process benchmarks of vontu-nse against baselines measured in the same run.

  read receipt: vontu-nse on a read-receipt push   vs  the sqlite3 tool reading the same record
  new mail:     vontu-nse on a new-mail push       vs  curl posting the same body to the same
                                                       loopback relay
Prints the median wall time and the peak RSS of each, and the ratios with their targets
(read receipt within 2x, new mail within 1.5x, peak RSS under 8 MB).

Usage: bench/nse_bench.py [--runs N] [--build DIR]   (DIR defaults to build/release)
"""

import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent


def measure(argv, stdin_bytes=b"", env=None):
    """Runs argv once; returns (seconds, peak RSS in KiB, stdout)."""
    start = time.perf_counter()
    proc = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, env=env)
    out = proc.stdout.read() if not stdin_bytes else None
    if stdin_bytes:
        out, _ = proc.communicate(stdin_bytes)
    _, status, usage = os.wait4(proc.pid, 0)
    elapsed = time.perf_counter() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        sys.exit("benchmark command failed (%d): %s" % (proc.returncode, " ".join(argv)))
    return elapsed, usage.ru_maxrss, out


def series(argv, runs, stdin_bytes=b""):
    measure(argv, stdin_bytes)  # warm the page cache
    times, peaks = [], []
    for _ in range(runs):
        seconds, rss, _ = measure(argv, stdin_bytes)
        times.append(seconds)
        peaks.append(rss)
    return statistics.median(times), max(peaks)


def report(name, subject, baseline, target_ratio, rss_limit_kib):
    ratio = subject[0] / baseline[0]
    print("%-13s vontu-nse %7.2f ms %6d KiB | baseline %7.2f ms %6d KiB | ratio %.2fx "
          "(target %.1fx: %s) | RSS target < %d KiB: %s" % (
              name, subject[0] * 1e3, subject[1], baseline[0] * 1e3, baseline[1], ratio,
              target_ratio, "met" if ratio <= target_ratio else "NOT met", rss_limit_kib,
              "met" if subject[1] < rss_limit_kib else "NOT met"))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--runs", type=int, default=30)
    parser.add_argument("--build", default=str(ROOT / "build" / "release"))
    args = parser.parse_args()
    hosts = Path(args.build) / "hosts"
    nse, defaults = str(hosts / "vontu-nse"), str(hosts / "vontu-defaults")

    with tempfile.TemporaryDirectory() as home:
        record = (ROOT / "samples" / "read-receipt-record.json").read_text()
        subprocess.run([defaults, "--home", home, "write", "group.ios.vontu",
                        "Track_9b2f61c0d4e8a7", record], check=True)
        database = str(Path(home) / "preferences" / "group.ios.vontu.sqlite")
        table = subprocess.run(["sqlite3", database,
                                "SELECT name FROM sqlite_master WHERE type='table' LIMIT 1"],
                               check=True, capture_output=True, text=True).stdout.strip()
        # After the first run the reader is no longer in the record, and each later run reads
        # the record and writes it back unchanged: a stable read-receipt path.
        push = str(ROOT / "samples" / "read-receipt.json")
        subject = series([nse, "--home", home, push], args.runs)
        baseline = series(["sqlite3", database,
                           "SELECT * FROM %s WHERE key = 'Track_9b2f61c0d4e8a7'" % table],
                          args.runs)
        report("read receipt", subject, baseline, 2.0, 8 * 1024)

        relay = subprocess.Popen([sys.executable, str(ROOT / "samples" / "demo-relay.py")],
                                 stdout=subprocess.PIPE, text=True)
        try:
            port = relay.stdout.readline().strip()
            connect = "relay.vontu.test:9001:127.0.0.1:%s" % port
            mail = str(ROOT / "samples" / "new-mail.json")
            subject = series([nse, "--home", home, "--relay-url", "http://relay.vontu.test",
                              "--connect-to", connect, mail], args.runs)
            body = json.dumps({"user": "Work@Example.com", "uid": "1042",
                               "key": "c2VjcmV0LXRva2Vu"}, separators=(",", ":"))
            baseline = series(["curl", "-s", "-o", "/dev/null", "-X", "POST",
                               "-H", "Accept: application/json",
                               "-H", "Content-Type: application/json; charset=UTF-8",
                               "--data-binary", body, "--connect-to", connect,
                               "http://relay.vontu.test:9001/post/eml"], args.runs)
            report("new mail", subject, baseline, 1.5, 8 * 1024)
        finally:
            relay.kill()
            relay.wait()


if __name__ == "__main__":
    main()
