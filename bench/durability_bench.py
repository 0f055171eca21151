#!/usr/bin/env python3
"""What a stronger durability promise would cost the queue: each task file and inventory is
replaced whole (a temporary file and a rename), as the platform does today, against the same
with the file and its directory flushed to the device (fsync) on each replacement, which would
make every acknowledged write survive a power cut. Both in the same run, in one directory.

    bench/durability_bench.py [--writes N] [--dir DIRECTORY]
"""
import argparse
import os
import statistics
import tempfile
import time


def replace(directory, name, data, durable):
    temporary = os.path.join(directory, "." + name + ".tmp")
    fd = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    try:
        os.write(fd, data)
        if durable:
            os.fsync(fd)
    finally:
        os.close(fd)
    os.replace(temporary, os.path.join(directory, name))
    if durable:
        dfd = os.open(directory, os.O_RDONLY)
        try:
            os.fsync(dfd)
        finally:
            os.close(dfd)


def run(directory, writes, durable):
    task = b'{"data":"' + b"x" * 200 + b'","run_results":{"total_runs":0},"type":"trackEvent"}'
    inventory = b"[" + b",".join([b'{"created_at":1,"task_persisted_id":"A","task_type":"t"}'] * 50) + b"]"
    start = time.perf_counter()
    for i in range(writes):
        # An add writes the task file and the inventory.
        replace(directory, f"task{i % 20}.json", task, durable)
        replace(directory, "inventory.json", inventory, durable)
    return (time.perf_counter() - start) / writes


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--writes", type=int, default=300)
    parser.add_argument("--dir", default=None)
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory(dir=options.dir) as directory:
        today, durable = [], []
        for _ in range(options.rounds):  # interleaved, so that both see the same machine
            today.append(run(directory, options.writes, False))
            durable.append(run(directory, options.writes, True))
    t, d = statistics.median(today), statistics.median(durable)
    print(f"add (task file + inventory), replaced whole: {t * 1e6:8.0f} us")
    print(f"the same with fsync of files and directory:  {d * 1e6:8.0f} us  ({d / t:.1f}x)")


if __name__ == "__main__":
    main()
