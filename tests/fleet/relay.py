"""A wire that doubles datagrams and delays each copy by a time of its own, so they also overtake.

It passes whole frames between two interfaces. So addresses and ports stay what they are, which
both sides of the controller network look at.
"""

import dataclasses
import heapq
import os
import random
import select
import socket
import threading
import time

ETH_P_ALL = 3
PACKET_OUTGOING = 4
IP_TYPE = b"\x08\x00"
UDP = 17


@dataclasses.dataclass(frozen=True)
class Behaviour:
    doubled: float  # share of the datagrams
    late: float  # share of the copies
    delay: tuple  # seconds, from and to
    late_delay: tuple


def _open(interface):
    frames = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    frames.bind((interface, 0))
    frames.setblocking(False)
    return frames


def _is_datagram(frame):
    return len(frame) > 23 and frame[12:14] == IP_TYPE and frame[23] == UDP


class Relay:
    """Works in a thread of its own while the `with` lasts; what is under way then is dropped."""

    def __init__(self, left, right, behaviour):
        self.datagrams = 0
        self.doubled = 0
        self.late = 0
        self._behaviour = behaviour
        self._sockets = (_open(left), _open(right))
        self._under_way = []  # heap of (due, order, socket, frame)
        self._order = 0
        self._random = random.Random()
        self._stop, self._stopped = os.pipe()
        self._thread = threading.Thread(target=self._work, name="relay")

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        os.close(self._stopped)
        self._thread.join()
        os.close(self._stop)
        for each in self._sockets:
            each.close()

    def _work(self):
        while True:
            due = self._under_way[0][0] - time.monotonic() if self._under_way else None
            ready, _, _ = select.select((self._stop, *self._sockets), (), (),
                                        None if due is None else max(due, 0))
            if self._stop in ready:
                return
            for at, each in enumerate(self._sockets):
                if each in ready:
                    self._take(each, self._sockets[1 - at])
            self._deliver()

    def _take(self, source, target):
        frame, address = source.recvfrom(65536)
        if address[2] == PACKET_OUTGOING:
            return
        if not _is_datagram(frame):
            self._send(target, frame)
            return
        self.datagrams += 1
        self._delay(target, frame)
        if self._random.random() < self._behaviour.doubled:
            self.doubled += 1
            self._delay(target, frame)

    def _delay(self, target, frame):
        late = self._random.random() < self._behaviour.late
        self.late += late
        bounds = self._behaviour.late_delay if late else self._behaviour.delay
        self._order += 1
        due = time.monotonic() + self._random.uniform(*bounds)
        heapq.heappush(self._under_way, (due, self._order, target, frame))

    def _deliver(self):
        while self._under_way and self._under_way[0][0] <= time.monotonic():
            _, _, target, frame = heapq.heappop(self._under_way)
            self._send(target, frame)

    @staticmethod
    def _send(target, frame):
        try:
            target.send(frame)
        except BlockingIOError:
            pass  # lost, as on any wire
