"""The network of the fleet: a namespace for each host, joined by a bridge.

Stands inside a network and a mount namespace of its own, which scripts/fleet-proof.sh makes. So
nothing of it can be seen from outside, no way leads out, and all of it goes with the last process.
"""

import contextlib
import ctypes
import fcntl
import os
import socket
import struct
import subprocess

from relay import Relay

BRIDGE = "fleet"
INTERFACE = "eth0"  # of each host
CLONE_NEWNET = 0x40000000
SIOCETHTOOL = 0x8946
ETHTOOL_STXCSUM = 0x17

_libc = ctypes.CDLL(None, use_errno=True)


def run(*command):
    """Runs a command and gives its output; what it complains of goes into the exception."""
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0:
        raise OSError(f"{' '.join(command)}: {done.stderr.strip() or done.returncode}")
    return done.stdout


def _enter(file):
    if _libc.setns(file, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


@contextlib.contextmanager
def inside(namespace):
    """Sockets that are made within belong to the namespace, also afterwards. This thread alone."""
    home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
    there = os.open(f"/run/netns/{namespace}", os.O_RDONLY)
    try:
        _enter(there)
        try:
            yield
        finally:
            _enter(home)
    finally:
        os.close(there)
        os.close(home)


def _write_checksums(interface):
    """Has the kernel write the checksums of what goes out here.

    Between namespaces it leaves them out otherwise, and the relay's frames would be dropped.
    """
    value = ctypes.create_string_buffer(struct.pack("II", ETHTOOL_STXCSUM, 0))
    request = struct.pack("16sP", interface.encode(), ctypes.addressof(value)).ljust(40, b"\0")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        fcntl.ioctl(any_socket, SIOCETHTOOL, request)


class Network:
    """The wires between the hosts. Host number n has the address 10.77.0.n."""

    def __init__(self, hosts):
        os.makedirs("/run/netns", exist_ok=True)
        run("mount", "-t", "tmpfs", "tmpfs", "/run/netns")
        run("ip", "link", "set", "lo", "up")
        run("ip", "link", "add", BRIDGE, "type", "bridge")
        run("ip", "link", "set", BRIDGE, "up")
        for number in hosts:
            self._add_host(number)

    @staticmethod
    def namespace(number):
        return f"host{number}"

    @staticmethod
    def address(number):
        return f"10.77.0.{number}"

    def _add_host(self, number):
        name = self.namespace(number)
        port = f"port{number}"
        run("ip", "netns", "add", name)
        run("ip", "link", "add", port, "type", "veth", "peer", "name", INTERFACE, "netns", name)
        run("ip", "link", "set", port, "master", BRIDGE, "up")
        run("ip", "-n", name, "address", "add", f"{self.address(number)}/24", "dev", INTERFACE)
        run("ip", "-n", name, "link", "set", "lo", "up")
        run("ip", "-n", name, "link", "set", INTERFACE, "up")
        with inside(name):
            _write_checksums(INTERFACE)

    @contextlib.contextmanager
    def loss(self, number, share):
        """Loses datagrams at random, coming and going. Gives a function that counts them."""
        rules = (("INPUT", "-i"), ("OUTPUT", "-o"))
        iptables = ("ip", "netns", "exec", self.namespace(number), "iptables", "-w")
        for chain, way in rules:
            run(*iptables, "-A", chain, way, INTERFACE, "-p", "udp", "-m", "statistic", "--mode",
                "random", "--probability", str(share), "-j", "DROP")
        try:
            yield lambda: sum(_dropped(run(*iptables, "-nvxL", chain)) for chain, _ in rules)
        finally:
            for chain, _ in rules:
                run(*iptables, "-F", chain)

    @contextlib.contextmanager
    def relay(self, number, behaviour):
        """Puts a relay between the host and the bridge, and gives it."""
        port = f"port{number}"
        run("ip", "link", "add", "relay0", "type", "veth", "peer", "name", "relay1")
        try:
            run("ip", "link", "set", port, "nomaster")
            run("ip", "link", "set", "relay0", "master", BRIDGE, "up")
            run("ip", "link", "set", "relay1", "up")
            with Relay(port, "relay1", behaviour) as relay:
                yield relay
        finally:
            run("ip", "link", "delete", "relay0")
            run("ip", "link", "set", port, "master", BRIDGE)


def _dropped(listing):
    """The packets that the DROP rules of a chain have met."""
    rows = (line.split() for line in listing.splitlines())
    return sum(int(row[0]) for row in rows if len(row) > 2 and row[2] == "DROP")
