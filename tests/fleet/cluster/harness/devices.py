# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Devices: a store, credentials, and the program that forwards the one with the others."""

import os
import signal
import sqlite3
import subprocess
import time

from .databases import COLUMNS
from .processes import Process, run, wait_until


class Device:
    """@param fleet  gives programs, folder and how to reach the servers"""

    def __init__(self, fleet, name):
        self.fleet = fleet
        self.name = name
        self.folder = os.path.join(fleet.folder, "devices", name)
        self.store = os.path.join(self.folder, "tallyra.db")
        self.log = os.path.join(self.folder, "forwarder.log")
        self.forwarder = None
        self.writer = None
        self.options = ("--follow",)
        os.makedirs(self.folder)
        self.connection = fleet.connection("device", name)

    def fill(self, records, seed, days=30):
        """Adds records whose playbacks spread over the last days."""
        run([self.fleet.program("tallyra-make-store"), self.store, records, seed, days], within=300)

    def begin_to_fill(self, records, seed, rate):
        """Adds records while the others work, at most so many a second."""
        self.writer = Process([self.fleet.program("tallyra-make-store"), self.store, records, seed, 1,
                               rate], os.path.join(self.folder, "writer.log"))

    def command(self, *options):
        return [self.fleet.program("tallyra-forward"), "--db", self.store, *self.connection,
                "--device", self.name, *options]

    def start(self, *options):
        """Starts the forwarder, without options with those of the last time."""
        self.options = options or self.options
        self.forwarder = Process(self.command(*self.options), self.log, env=self.fleet.environment)

    def send_once(self, *options, within=120, **environment):
        """Returns the exit status of the forwarder after it has sent what there is."""
        with open(self.log, "ab") as log:
            return subprocess.run(
                self.command("--once", *options), timeout=within, check=False, stdout=log, stderr=log,
                env={**os.environ, **self.fleet.environment, **environment}).returncode

    def runs(self):
        return self.forwarder.runs()

    def crash(self):
        self.forwarder.kill()

    def stop(self, number=signal.SIGTERM):
        if self.forwarder and self.forwarder.runs():
            self.forwarder.stop(number)
            self.forwarder = None
        if self.writer and self.writer.runs():
            self.writer.kill()

    def epoch(self):
        return self._rows("SELECT epoch FROM store")[0][0]

    def count(self):
        return self._rows("SELECT count(*) FROM entries")[0][0]

    def records(self):
        """Device, epoch, id and COLUMNS of all records, by the keys that they have in the fleet: a
        record that came from a damaged store keeps its key there."""
        return [(self.name, *row) for row in self._rows(f"""
            SELECT coalesce(o.epoch, s.epoch), coalesce(o.origin + r.id - o.first, r.id), {COLUMNS}
            FROM records r CROSS JOIN store s LEFT JOIN origins o
                ON o.first = (SELECT max(first) FROM origins WHERE first <= r.id) AND r.id <= o.last""")]

    def state(self):
        """Up to which entries it has sent, and knows to be stored."""
        rows = self._rows("SELECT sent, stored FROM forwarding")
        return rows[0] if rows else (0, 0)

    def last(self):
        return self._rows("SELECT max(id) FROM entries")[0][0]

    def await_all_sent(self, within):
        wait_until(f"{self.name} to send all, see {self.log}",
                   lambda: self.state()[0] >= self.last(), within, 0.5)

    def forget_after(self, days_ago):
        """Drops the records that arrived since then, as if it had been off since."""
        connection = sqlite3.connect(self.store)
        with connection:
            connection.execute("DELETE FROM runs WHERE arrival > ?",
                               [time.time_ns() - days_ago * 86_400 * 10**9])
        connection.close()

    def damage(self):
        """Overwrites every twentieth page behind the first ones, as a dying disk does."""
        with open(self.store, "r+b") as file:
            pages = os.path.getsize(self.store) // 4096
            for page in range(40, pages, 20):
                file.seek(page * 4096)
                file.write(b"\xde\xad" * 2048)

    def _rows(self, text):
        connection = sqlite3.connect(f"file:{self.store}?mode=ro", uri=True, timeout=20)
        try:
            return connection.execute(text).fetchall()
        finally:
            connection.close()
