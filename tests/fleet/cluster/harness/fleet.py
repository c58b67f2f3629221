# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""A whole fleet: nodes, database, collectors and devices."""

import os
import shutil
import time

from .certificates import Authority
from .comparison import compare
from .databases import Postgres, Sqlite
from .devices import Device
from .network import Loopback
from .nodes import Nodes
from .processes import Failure, Process, wait_until


class Fleet:
    """A context: all its processes have ended when it is left.

    @param programs  folder of the programs under test
    @param folder    for everything that the fleet writes; made empty
    """

    def __init__(self, programs, folder, nodes=1, database="postgres", network=None, durable=True,
                 collector_options=()):
        self.programs = programs
        self.folder = folder
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        self.environment = {"LOGSVC_OUTPUT": "stderr", "LOGSVC_LEVEL": "info"}
        self.network = network or Loopback()
        self.authority = Authority(os.path.join(folder, "certificates"))
        self.collector_options = ["--replicas", nodes, *collector_options]
        self.devices = []
        self.collectors = []
        self.database = None
        self.nodes = Nodes(programs, folder, self.authority, self.network, nodes)
        try:
            self.nodes.start()
            self.database = (Postgres(folder, durable) if database == "postgres" else Sqlite(folder))
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def program(self, name):
        return os.path.join(self.programs, name)

    def connection(self, role, name):
        """The arguments with which a device or a collector reaches the servers."""
        certificate, key = self.authority.client(name)
        arguments = ["--credentials", self.nodes.keys.credentials(role, name),
                     "--ca", self.authority.certificate, "--certificate", certificate, "--key", key]
        for url in self.nodes.urls():
            arguments += ["--server", url]
        return arguments

    def add_device(self, name):
        self.devices.append(Device(self, name))
        return self.devices[-1]

    def add_devices(self, number):
        return [self.add_device(f"tv-{each}") for each in range(1, number + 1)]

    def start_collector(self):
        """Starts one more; the first one makes the streams."""
        collector = Collector(self, f"collector-{len(self.collectors) + 1}")
        self.collectors.append(collector)
        collector.start()
        return collector

    def await_stream(self):
        wait_until("the stream", self.nodes.stream, within=60, every=0.3)

    def make_stream(self):
        """Makes the streams, and leaves no collector."""
        collector = self.start_collector()
        self.await_stream()
        collector.stop()
        self.collectors.clear()

    def expected(self):
        return [row for device in self.devices for row in device.records()]

    def await_stored(self, number, within):
        """Waits for so many records in the database; returns the seconds it took."""
        begin = time.monotonic()

        def is_stored():
            self.check_running()
            return self.database.count() >= number

        try:
            wait_until(f"{number} records", is_stored, within, every=0.5)
        except Failure as failure:
            raise Failure(f"{failure}; the database has {self.database.count()}, "
                          f"the stream {self.stream_state()}") from failure
        return time.monotonic() - begin

    def await_all_stored(self, within):
        return self.await_stored(sum(device.count() for device in self.devices), within)

    def await_covered(self, number, within):
        """As await_stored, with a cheaper question."""
        wait_until(f"{number} records", lambda: self.database.covered() >= number, within, 0.1)

    def await_watermarks(self, within, devices=None):
        """Waits until these devices, or all, know that all their records are stored."""
        for device in devices or self.devices:
            wait_until(f"the watermark of {device.name}, see {device.log}",
                       lambda device=device: device.state()[1] >= device.last(), within, 0.5)

    def stream_state(self):
        stream = self.nodes.stream()
        return stream["state"] if stream else "does not answer"

    def compare(self):
        """Fails unless every record of every device is stored exactly once; returns their number."""
        number = compare(self.expected(), self.database.records())
        if self.database.count() != number:
            raise Failure(f"the database has {self.database.count()} entries, its view {number}")
        return number

    def check_running(self):
        """Fails if a program has ended by itself."""
        for each in [*self.collectors, *self.devices]:
            process = each.forwarder if isinstance(each, Device) else each.process
            if process and not process.runs() and process.child.returncode != -9:
                raise Failure(f"{process.arguments[0]} ended with {process.child.returncode}, "
                              f"see {process.log}")

    def close(self):
        for device in self.devices:
            device.stop()
        for collector in self.collectors:
            collector.stop()
        if self.database:
            self.database.close()
        self.nodes.stop()
        self.network.close()


class Collector:
    def __init__(self, fleet, name):
        self.fleet = fleet
        self.name = name
        self.log = os.path.join(fleet.folder, f"{name}.log")
        self.connection = fleet.connection("collector", name)
        self.process = None

    def start(self):
        self.process = Process([self.fleet.program("tallyra-collect"), "--db", self.fleet.database.url,
                                *self.connection, *self.fleet.collector_options], self.log,
                               env=self.fleet.environment)

    def runs(self):
        return self.process.runs()

    def crash(self):
        self.process.kill()

    def stop(self):
        if self.process.runs():
            self.process.stop()
