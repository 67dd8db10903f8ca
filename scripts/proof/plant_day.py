#!/usr/bin/env python3
"""Replays a recorded plant into orva_host as fast as it goes, and compares the host's resident memory
at each hour of the recording with the formula of docs/limits.md. Every row must be archived.

Exits with 1 when the memory is more than 10 % off at any hour, or a sample was lost."""

import argparse
import bisect
import collections
import csv
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

# The formula, for 64 bits: bytes.
PER_ITEM = 3345  # its variable, the cached item, its archive's part, its function block
PER_SAMPLE = 60  # a Double in the cache: 57, and a twentieth that the heap keeps between
PER_WAITING = 49  # what the write buffer adds to a sample that waits, which is cached too
TEXT_OVERHEAD = 8  # a text is a piece of memory of its own, of at least 32 bytes
SQLITE = 2_300_000  # one archive: page cache, statements, the log
FIRST_IN_AND_PROBATION = 409 + 818  # blocks that stay while nobody reads
BLOCK = 1000
TOLERANCE = 0.10
STEP = 1000  # rows between two entries of the expectation

TYPES = {"double": "Double", "float": "Float", "int64": "Int64", "uint32": "UInt32",
         "bool": "Boolean", "string": "String"}


def heap_cost(text):
    """What glibc's heap takes for a String sample's characters."""
    return max(32, (len(text.encode()) + 1 + TEXT_OVERHEAD + 15) // 16 * 16) if text else 0


class Cache:
    """What of the written samples is in memory: the blocks of the first-in and the probation queue,
    and each item's newest block."""

    class Block:
        __slots__ = ("samples", "text", "queued", "newest")

        def __init__(self):
            self.samples = self.text = 0
            self.queued = self.newest = True

    def __init__(self):
        self._queue = collections.deque()
        self._newest = {}
        self.samples = self.text = 0

    def _open(self, item):
        old = self._newest.get(item)
        if old is not None:
            old.newest = False
            self._drop(old)
        block = self._newest[item] = self.Block()
        self._queue.append(block)
        if len(self._queue) > FIRST_IN_AND_PROBATION:
            oldest = self._queue.popleft()
            oldest.queued = False
            self._drop(oldest)
        return block

    def _drop(self, block):
        if not block.queued and not block.newest:
            self.samples -= block.samples
            self.text -= block.text

    def add(self, item, text):
        block = self._newest.get(item)
        if block is None or block.samples == BLOCK:
            block = self._open(item)
        block.samples += 1
        block.text += text
        self.samples += 1
        self.text += text


class Recording:
    """The variables of a recording; what is in memory after so many rows; where its hours begin."""

    def __init__(self, file):
        self.items = {}
        self.offered = [0]  # samples that reached the write filters, at every STEP of the rows
        self.expected = [(0, 0)]  # (samples, bytes of text) in memory then
        self.hours = []  # samples offered when each hour of the recording was over
        self.accepted = 0
        self._read(file)

    def _read(self, file):
        cache = Cache()
        last = {}
        offered = 0
        hour_end = None
        with open(file, encoding="utf-8", newline="") as rows:
            reader = csv.reader(rows)
            next(reader)
            for number, (stamp, item, path, kind, value, _) in enumerate(reader, 1):
                stamp = int(stamp)
                if item not in last:
                    self.items[item] = (path, kind)
                    last[item] = stamp
                if hour_end is None:
                    hour_end = stamp + 3600_000
                if kind != "double" or value != "Inf":  # blocks never offer that
                    offered += 1
                    if stamp >= last[item]:
                        last[item] = stamp
                        self.accepted += 1
                        cache.add(item, heap_cost(value) if kind == "string" else 0)
                if number % STEP == 0:
                    self.offered.append(offered)
                    self.expected.append((cache.samples, cache.text))
                    # Some rows are ahead of their time, none of those is asked.
                    while hour_end <= stamp < hour_end + 600_000:
                        self.hours.append(offered)
                        hour_end += 3600_000
        self.offered.append(offered)
        self.expected.append((cache.samples, cache.text))
        if not self.hours or offered - self.hours[-1] > STEP:
            self.hours.append(offered)

    def in_memory(self, offered):
        """Samples in the cache, and of the most that there ever were until then the bytes: what a
        process has taken for them it keeps for the next ones."""
        until = max(1, bisect.bisect_right(self.offered, offered))
        return (self.expected[until - 1][0],
                max(samples * PER_SAMPLE + text for samples, text in self.expected[:until]))


class Host:
    """A running host; at the latest the end of a `with` ends it."""

    def __init__(self, program, folder, recording=None, file=None):
        config = {"log": {"levels": 48, "file": "host.log"}, "http": {"port": 0},
                  "addins": ["liborva_database.so", "liborva_sqlite.so"],
                  "layers": [{"number": 0, "cache": True}],
                  "DataArchive": {"archives": [{
                      "connection": {"providerType": "sqlite", "location": "store"},
                      "limits": {}, "filter": {"allValues": True}}]}}
        if recording is not None:
            config["variables"] = [
                {"id": int(item), "path": path, "type": TYPES[kind],
                 "layers": {"0": {"archive": 0}}}
                for item, (path, kind) in recording.items.items()]
            config["sources"] = [{"type": "csv", "file": os.path.abspath(file), "speed": "max"}]
        os.makedirs(folder)
        with open(os.path.join(folder, "plant.json"), "w", encoding="utf-8") as out:
            json.dump(config, out)
        self._output = open(os.path.join(folder, "output"), "wb")
        self._process = subprocess.Popen(
            [program, "--config", os.path.join(folder, "plant.json")], stdout=self._output,
            stderr=self._output)
        self._folder = folder
        try:
            self.port = self._wait_for_port()
        except BaseException:
            self._end()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._end()

    def _end(self):
        if self._process.poll() is None:
            self._process.kill()
            self._process.wait()
        self._output.close()

    def _wait_for_port(self):
        for _ in range(600):
            found = re.search(r"listening on http://[^:]+:(\d+)", self.log())
            if found:
                return int(found.group(1))
            if self._process.poll() is not None:
                break
            time.sleep(0.1)
        raise SystemExit("the host does not start:\n" + self.log())

    def log(self):
        text = ""
        for name in ("output", "host.log"):
            path = os.path.join(self._folder, name)
            if os.path.exists(path):
                with open(path, encoding="utf-8", errors="replace") as file:
                    text += file.read()
        return text

    def metrics(self):
        """Each family's sum over its series."""
        with urllib.request.urlopen(f"http://127.0.0.1:{self.port}/metrics", timeout=60) as reply:
            text = reply.read().decode()
        sums = collections.Counter()
        for line in text.splitlines():
            if line and not line.startswith("#"):
                name, value = line.rsplit(" ", 1)
                sums[name.split("{", 1)[0]] += float(value)
        return sums

    def stop(self):
        self._process.send_signal(signal.SIGTERM)
        return self._process.wait(timeout=120)


def replay(host, recording):
    """(samples offered, resident bytes, bytes waiting) again and again until all came."""
    polls = []
    total = recording.offered[-1]
    changed = time.monotonic()
    while True:
        sums = host.metrics()
        offered = int(sums["orva_samples_accepted_total"] + sums["orva_samples_refused_total"])
        waiting = int(sums["orva_sqlite_buffered_samples"]) * PER_WAITING
        if not polls or offered != polls[-1][0]:
            changed = time.monotonic()
        polls.append((offered, int(sums["orva_host_resident_bytes"]), waiting))
        if offered >= total or time.monotonic() - changed > 120:
            return polls, sums
        time.sleep(0.1)


def report(recording, polls, base):
    """Prints the table; whether every hour is within the tolerance."""
    good = True
    print(f"without items the host takes {base / 1e6:.1f} MB")
    print("hour  samples offered  in the cache  resident MB  formula MB  off by")
    positions = [offered for offered, _, _ in polls]
    for hour, boundary in enumerate(recording.hours, 1):
        offered, resident, waiting = polls[min(bisect.bisect_left(positions, boundary),
                                               len(polls) - 1)]
        samples, most = recording.in_memory(offered)
        formula = base + SQLITE + len(recording.items) * PER_ITEM + most + waiting
        off = resident / formula - 1
        wrong = abs(off) > TOLERANCE
        good = good and not wrong
        print(f"{hour:4} {offered:16} {samples:13} {resident / 1e6:12.1f} {formula / 1e6:11.1f} "
              f"{off:+7.1%}{'  WRONG' if wrong else ''}")
    return good


def prove(host, recording, base):
    """Whether all samples came, and took the memory that they may."""
    begun = time.monotonic()
    polls, sums = replay(host, recording)
    taken = time.monotonic() - begun
    good = report(recording, polls, base)
    accepted = int(sums["orva_samples_accepted_total"])
    dropped = int(sums["orva_sqlite_dropped_samples_total"])
    print(f"{polls[-1][0]} samples of {len(recording.items)} items in {taken:.0f} s, "
          f"{accepted} archived, {recording.accepted - accepted} missing, {dropped} dropped, "
          f"{len(polls)} looks")
    if accepted != recording.accepted or dropped != 0:
        print("samples are missing")
        good = False
    if host.stop() != 0:
        print("the host did not stop well")
        good = False
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--program", required=True, help="orva_host")
    parser.add_argument("--recording", required=True, help="the CSV file")
    arguments = parser.parse_args()
    folder = tempfile.mkdtemp(prefix="orva_plant_day_")
    try:
        recording = Recording(arguments.recording)
        with Host(arguments.program, os.path.join(folder, "empty")) as empty:
            time.sleep(1)
            base = int(empty.metrics()["orva_host_resident_bytes"])
            empty.stop()
        with Host(arguments.program, os.path.join(folder, "plant"), recording,
                  arguments.recording) as host:
            return 0 if prove(host, recording, base) else 1
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
