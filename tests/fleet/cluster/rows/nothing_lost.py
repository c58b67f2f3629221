# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Nodes, programs and the database are killed, and the network fails, while devices send."""

import random
import signal
import time

from harness.fleet import Fleet
from harness.network import Loopback, Namespaces, enter_own_namespace

NODES = 3
DEVICES = 20
RECORDS = 200_000
SECONDS = 240
NODE_KILLS = 10
PARTITIONS = 10
PROGRAM_KILLS = 20
RESTARTS = 2
PARTITION_SECONDS = 5
DOWN_SECONDS = 2
SETTLE_SECONDS = 600


class Faults:
    """Does one after the other, so that two of three nodes are always connected."""

    def __init__(self, fleet, random_source):
        self.fleet = fleet
        self.random = random_source

    def kill_node(self):
        node = self.random.choice(self.fleet.nodes.all)
        node.kill()
        time.sleep(DOWN_SECONDS)
        node.start()
        self.fleet.nodes.await_ready()

    def cut_node(self):
        node = self.random.choice(self.fleet.nodes.all)
        self.fleet.network.cut(node.number)
        time.sleep(PARTITION_SECONDS)
        self.fleet.network.mend(node.number)
        self.fleet.nodes.await_ready()

    def kill_program(self):
        each = self.random.choice([*self.fleet.devices, *self.fleet.collectors * 5])
        each.crash()
        time.sleep(self.random.random())
        each.start()

    def restart_database(self):
        self.fleet.database.stop(self.random.choice([signal.SIGINT, signal.SIGQUIT]))
        time.sleep(DOWN_SECONDS)
        self.fleet.database.start()


def plan(faults, size, has_network):
    def times(number):
        return max(1, round(number * size))

    planned = [faults.kill_node] * times(NODE_KILLS)
    planned += [faults.kill_program] * times(PROGRAM_KILLS)
    planned += [faults.restart_database] * times(RESTARTS)
    planned += [faults.cut_node] * (times(PARTITIONS) if has_network else 0)
    faults.random.shuffle(planned)
    return planned


def run(programs, folder, size):
    has_network = enter_own_namespace()
    network = Namespaces() if has_network else Loopback()
    seed = random.randrange(1 << 32)
    print(f"seed {seed}", flush=True)
    with Fleet(programs, folder, NODES, network=network) as fleet:
        faults = Faults(fleet, random.Random(seed))
        fleet.start_collector()
        fleet.start_collector()
        fleet.await_stream()
        records = round(RECORDS * size / DEVICES)
        for number, device in enumerate(fleet.add_devices(DEVICES)):
            device.fill(1, number, 1)
            device.begin_to_fill(records - 1, DEVICES + number, records / (SECONDS * size))
            device.start()
        begin = time.monotonic()
        planned = plan(faults, size, has_network)
        for number, fault in enumerate(planned, 1):
            fault()
            print(f"{number} of {len(planned)}: {fault.__name__}, {fleet.database.count()} stored",
                  flush=True)
        fleet.await_stored(records * DEVICES, SETTLE_SECONDS)
        took = time.monotonic() - begin
        made = sum(device.count() for device in fleet.devices)
        stored = fleet.compare()
    return [("records of devices", made), ("stored exactly once", stored),
            *((name, planned.count(getattr(faults, name)))
              for name in ("kill_node", "cut_node", "kill_program", "restart_database")),
            ("seconds", round(took))]
