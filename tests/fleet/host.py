"""One orva_host in its namespace: started, stopped, asked over HTTP, and with a clock to set."""

import http.client
import json
import os
import signal
import socket
import subprocess
import time

from network import Network, inside

FAKETIME = "/usr/lib/{}/faketime/libfaketimeMT.so.1"
STOP_SECONDS = 20
START_SECONDS = 20


def faketime_library():
    """The library that gives a process a clock of its own; None when it is not installed."""
    names = (FAKETIME.format(arch) for arch in os.listdir("/usr/lib"))
    return next((name for name in names if os.path.exists(name)), None)


class HostFailure(Exception):
    """A host did not do what it was started for."""


class _Connection(http.client.HTTPConnection):
    def __init__(self, namespace, port):
        super().__init__("127.0.0.1", port, timeout=60)
        self._namespace = namespace

    def connect(self):
        with inside(self._namespace):
            self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect((self.host, self.port))


class Host:
    """`folder` gets the configuration, the programs, the store and the logs."""

    def __init__(self, number, program, folder):
        self.number = number
        self.namespace = Network.namespace(number)
        self.folder = folder
        self._program = program
        self._process = None
        self._connection = None
        self._starts = 0
        os.makedirs(folder)

    def write(self, name, text):
        """A file in the folder; whoever reads it meanwhile sees the old one or the new one."""
        path = os.path.join(self.folder, name)
        with open(path + ".new", "w", encoding="utf-8") as file:
            file.write(text)
        os.replace(path + ".new", path)

    def set_clock(self, offset_seconds):
        """How far its clock is off from now on, if it was started with `own_clock`."""
        self.write("clock", f"{offset_seconds:+d}s\n")

    def start(self, config, own_clock=False):
        self.write("host.json", json.dumps(config, indent=1))
        self._starts += 1
        out = os.path.join(self.folder, f"out.{self._starts}")
        with open(out, "w") as stdout, open(self.log_file(), "w") as stderr:
            self._process = subprocess.Popen(
                ("ip", "netns", "exec", self.namespace, self._program, "--config",
                 os.path.join(self.folder, "host.json")),
                stdin=subprocess.DEVNULL, stdout=stdout, stderr=stderr,
                env=self._environment(own_clock))
        self._connection = _Connection(self.namespace, self._port(out))

    def _environment(self, own_clock):
        if not own_clock:
            return None
        return dict(os.environ, LD_PRELOAD=faketime_library(), FAKETIME_NO_CACHE="1",
                    FAKETIME_TIMESTAMP_FILE=os.path.join(self.folder, "clock"),
                    FAKETIME_DONT_FAKE_MONOTONIC="1", DONT_FAKE_MONOTONIC="1")

    def log_file(self):
        return os.path.join(self.folder, f"log.{self._starts}")

    def log(self):
        """Of the present run."""
        with open(self.log_file(), encoding="utf-8") as file:
            return file.read()

    def _port(self, out):
        until = time.monotonic() + START_SECONDS
        while time.monotonic() < until and self._process.poll() is None:
            with open(out, encoding="utf-8") as file:
                line = file.readline()
            if line.startswith("listening on") and line.endswith("\n"):
                return int(line.rsplit(":", 1)[1])
            time.sleep(0.02)
        raise HostFailure(f"host {self.number} does not listen; its log is {self.log_file()}")

    def is_running(self):
        return self._process is not None

    def stop(self):
        """Ends it as an administrator does. That has to succeed."""
        self._connection.close()
        self._process.send_signal(signal.SIGTERM)
        try:
            code = self._process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            self._process.kill()
            code = f"none for {STOP_SECONDS} s"
        self._process = None
        if code != 0:
            raise HostFailure(f"host {self.number} stopped with exit code {code}; "
                              f"its log is {self.log_file()}")

    def call(self, method, body):
        """The reply of a JSON method."""
        reply = json.loads(self._ask("POST", f"/Methods/{method}", json.dumps(body)))
        if reply["code"] != 0:
            raise HostFailure(f"host {self.number}: {method} is answered with {reply['code']:#x}")
        return reply

    def metric(self, name, labels):
        """The figure of GET /metrics, with its labels as they are written there."""
        for line in self._ask("GET", "/metrics").splitlines():
            if line.startswith(f"{name}{{{labels}}} "):
                return int(float(line.rsplit(" ", 1)[1]))
        raise HostFailure(f"host {self.number} has no metric {name}{{{labels}}}")

    def _ask(self, verb, path, body=None):
        self._connection.request(verb, path, body)
        response = self._connection.getresponse()
        text = response.read().decode("utf-8")
        if response.status != 200:
            raise HostFailure(f"host {self.number}: {path} is answered with {response.status}")
        return text
