# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Nodes, programs and the database are killed, and the network fails, while devices send."""

import random
import signal
import time
from collections import Counter

from harness.fleet import Fleet
from harness.network import Namespaces, enter_own_namespace
from harness.processes import Failure

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
    """Does one after the other, so that two of three nodes are always connected.

    Counts a fault only after it has seen what was hit running before it, and not after it."""

    def __init__(self, fleet, random_source):
        self.fleet = fleet
        self.random = random_source
        self.done = Counter()

    def note(self, name, ran_before, runs_after):
        if not ran_before or runs_after:
            raise Failure(f"{name}: ran before: {ran_before}, after: {runs_after}")
        self.done[name] += 1

    def kill_node(self):
        node = self.random.choice(self.fleet.nodes.all)
        ran = node.process.runs()
        node.kill()
        self.note("kill_node", ran, node.process.runs())
        time.sleep(DOWN_SECONDS)
        node.start()
        self.fleet.nodes.await_ready()

    def cut_node(self):
        node = self.random.choice(self.fleet.nodes.all)
        # While the nodes elect a leader, none answers.
        self.fleet.nodes.await_answer(node)
        self.fleet.network.cut(node.number)
        self.note("cut_node", True, self.fleet.nodes.answers(node))
        time.sleep(PARTITION_SECONDS)
        self.fleet.network.mend(node.number)
        self.fleet.nodes.await_ready()

    def kill_program(self):
        each = self.random.choice([*self.fleet.devices, *self.fleet.collectors * 5])
        ran = each.runs()
        each.crash()
        self.note("kill_program", ran, each.runs())
        time.sleep(self.random.random())
        each.start()

    def restart_database(self):
        ran = self.fleet.database.answers()
        self.fleet.database.stop(self.random.choice([signal.SIGINT, signal.SIGQUIT]))
        self.note("restart_database", ran, self.fleet.database.process.runs())
        time.sleep(DOWN_SECONDS)
        self.fleet.database.start()


def plan(faults, size):
    def times(number):
        return max(1, round(number * size))

    planned = [faults.kill_node] * times(NODE_KILLS)
    planned += [faults.kill_program] * times(PROGRAM_KILLS)
    planned += [faults.restart_database] * times(RESTARTS)
    planned += [faults.cut_node] * times(PARTITIONS)
    faults.random.shuffle(planned)
    return planned


def run(programs, folder, size):
    if not enter_own_namespace():
        raise Failure("the network can only fail where root may make namespaces, with ip and unshare")
    seed = random.randrange(1 << 32)
    print(f"seed {seed}", flush=True)
    with Fleet(programs, folder, NODES, network=Namespaces()) as fleet:
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
        planned = plan(faults, size)
        for number, fault in enumerate(planned, 1):
            fault()
            print(f"{number} of {len(planned)}: {fault.__name__}, {fleet.database.count()} stored",
                  flush=True)
        fleet.await_stored(records * DEVICES, SETTLE_SECONDS)
        took = time.monotonic() - begin
        made = sum(device.count() for device in fleet.devices)
        stored = fleet.compare()
        asked_for = Counter(fault.__name__ for fault in planned)
        if faults.done != asked_for:
            raise Failure(f"asked for {dict(asked_for)}, done {dict(faults.done)}")
    return [("records of devices", made), ("stored exactly once", stored),
            *sorted(faults.done.items()),
            ("seconds", round(took))]
