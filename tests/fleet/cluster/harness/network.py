# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Where the nodes are: addresses of the loopback interface, or a namespace for each node.

Namespaces let a node lose its network while it runs. The whole harness then runs in a network and
mount namespace of its own, which vanish with it: see enter_own_namespace.
"""

import os
import random
import shutil
import socket
import sys

from .processes import run

MARK = "TALLYRA_CLUSTER_NAMESPACE"
CLUSTER_PORT_OFFSET = 2000


def enter_own_namespace():
    """Starts this program again in namespaces of its own; returns False if that is not allowed."""
    if os.environ.get(MARK):
        return True
    if os.geteuid() != 0 or not shutil.which("ip") or not shutil.which("unshare"):
        return False
    if os.system("unshare --net --mount true 2>/dev/null"):
        return False
    os.environ[MARK] = "1"
    os.execvp("unshare", ["unshare", "--net", "--mount", "--", sys.executable, *sys.argv])


def is_free(port):
    with socket.socket() as probe:
        try:
            probe.bind(("127.0.0.1", port))
        except OSError:
            return False
    return True


class Loopback:
    """All nodes at 127.0.0.1, each at ports of its own."""

    def __init__(self):
        self.taken = set()

    def address(self, _number):
        while True:
            port = random.randrange(20000, 30000)
            if port not in self.taken and is_free(port) and is_free(port + CLUSTER_PORT_OFFSET):
                self.taken.add(port)
                return "127.0.0.1", port

    def prefix(self, _number):
        return []

    def close(self):
        pass


class Namespaces:
    """Each node in a namespace with one link to a bridge. Devices and collectors are at the bridge."""

    def __init__(self):
        run(["ip", "link", "set", "lo", "up"])
        os.makedirs("/run/netns", exist_ok=True)
        run(["mount", "-t", "tmpfs", "none", "/run/netns"])
        run(["ip", "link", "add", "hub", "type", "bridge"])
        run(["ip", "addr", "add", "10.77.0.1/24", "dev", "hub"])
        run(["ip", "link", "set", "hub", "up"])
        self.numbers = []

    def address(self, number):
        host = f"10.77.0.{10 + number}"
        run(["ip", "netns", "add", f"node{number}"])
        run(["ip", "link", "add", f"to{number}", "type", "veth", "peer", "name", "uplink",
             "netns", f"node{number}"])
        run(["ip", "link", "set", f"to{number}", "master", "hub", "up"])
        inside = ["ip", "-n", f"node{number}"]
        run([*inside, "link", "set", "lo", "up"])
        run([*inside, "addr", "add", f"{host}/24", "dev", "uplink"])
        run([*inside, "link", "set", "uplink", "up"])
        self.numbers.append(number)
        return host, 4222

    def prefix(self, number):
        return ["ip", "netns", "exec", f"node{number}"]

    def cut(self, number):
        """From now on, all packets to and from the node are lost."""
        run(["ip", "link", "set", f"to{number}", "down"])

    def mend(self, number):
        run(["ip", "link", "set", f"to{number}", "up"])

    def close(self):
        for number in self.numbers:
            run(["ip", "netns", "del", f"node{number}"])
        run(["ip", "link", "del", "hub"])
        run(["umount", "/run/netns"])
