# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""The nats-servers, as tallyra-keys configures them."""

import os
import shutil

from .nats_client import Client, Credentials, Refused, Tls
from .processes import Failure, Process, run, wait_until


class Keys:
    """The folder of tallyra-keys."""

    def __init__(self, programs, folder, servers=()):
        self.program = os.path.join(programs, "tallyra-keys")
        self.folder = folder
        run([self.program, "init", folder, *(["--servers", *servers] if servers else [])])

    def credentials(self, role, name):
        path = os.path.join(self.folder, f"{name}.creds")
        with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600), "w",
                  encoding="ascii") as file:
            file.write(run([self.program, role, self.folder, name]))
        return path


class Node:
    def __init__(self, number, address, folder, prefix):
        self.number, self.address, self.folder, self.prefix = number, address, folder, prefix
        host, port = address
        self.name = host if port == 4222 else f"{host}-{port}"
        self.url = f"tls://{host}:{port}"
        self.store = os.path.join(folder, "store")
        self.log = os.path.join(folder, "log")
        self.process = None

    def prepare(self, keys, authority):
        os.makedirs(self.folder)
        for file in (f"{self.name}.conf", "resolver.conf"):
            shutil.copy(os.path.join(keys.folder, file), self.folder)
        certificate, key = authority.server(self.name, self.address[0])
        shutil.copy(certificate, self.folder)
        shutil.copy(key, self.folder)
        shutil.copy(authority.certificate, self.folder)

    def start(self):
        self.process = Process([*self.prefix, "nats-server", "-c", f"{self.name}.conf"],
                               self.log, cwd=self.folder)

    def kill(self):
        self.process.kill()

    def lose_data(self):
        """Deletes its store, and returns whether it had data of streams."""
        had_data = any(files for _, _, files in os.walk(self.store))
        shutil.rmtree(self.store)
        return had_data


class Nodes:
    def __init__(self, programs, folder, authority, network, number):
        self.authority = authority
        self.network = network
        addresses = [network.address(each) for each in range(1, number + 1)]
        self.keys = Keys(programs, os.path.join(folder, "keys"),
                         [f"{host}:{port}" for host, port in addresses])
        self.all = [Node(each, address, os.path.join(folder, f"node{each}"), network.prefix(each))
                    for each, address in enumerate(addresses, 1)]
        for node in self.all:
            node.prepare(self.keys, authority)
        self.watcher = Credentials(self.keys.credentials("collector", "watcher"))
        self.certificate = authority.client("watcher")

    def start(self):
        for node in self.all:
            node.start()
        self.await_ready()

    def await_ready(self):
        for node in self.all:
            self.await_answer(node)

    def await_answer(self, node):
        wait_until(f"node {node.number}, see {node.log}", lambda: self.answers(node))

    def answers(self, node):
        """Whether JetStream serves requests at this node."""
        if not node.process.runs():
            raise Failure(f"node {node.number} ended, see {node.log}")
        try:
            client = self.client(node, within=2)
        except (OSError, Refused):
            return False
        try:
            reply = client.request("$JS.API.INFO")
            return bool(reply) and "error" not in reply
        except (OSError, Refused):
            return False
        finally:
            client.close()

    def client(self, node, within=10):
        """A connection with the rights of a collector."""
        return Client(node.address, self.watcher, Tls(self.authority.certificate, self.certificate),
                      within=within)

    def stream(self, name="TALLYRA"):
        """What the servers say about a stream; None if nobody answers."""
        for node in self.all:
            if not node.process.runs():
                continue
            try:
                client = self.client(node, within=2)
                try:
                    reply = client.request(f"$JS.API.STREAM.INFO.{name}")
                finally:
                    client.close()
            except (OSError, Refused):
                continue
            if reply and "error" not in reply:
                return reply
        return None

    def urls(self):
        return [node.url for node in self.all]

    def stop(self):
        for node in self.all:
            if node.process and node.process.runs():
                node.process.stop()
