# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Where collectors store: a private PostgreSQL cluster, or an SQLite file."""

import csv
import glob
import io
import os
import pwd
import shutil
import signal
import sqlite3
import subprocess
import tempfile

from .processes import Failure, Process, run, wait_until

# What tells whether a record is the one that the device has.
COLUMNS = "arrival, event, param1, param2, time_sec, time_nsec, playback_id"


class Postgres:
    """Nobody but this machine's user reaches it: it listens on a socket in a folder of its own."""

    def __init__(self, folder, durable=True):
        self.programs = max(glob.glob("/usr/lib/postgresql/*/bin"))
        # A socket's path has at most 107 characters.
        self.sockets = tempfile.mkdtemp(prefix="tallyra-pg-")
        self.folder = os.path.join(folder, "postgres")
        self.log = os.path.join(folder, "postgres.log")
        self.user = "postgres" if os.geteuid() == 0 else None
        self.name = self.user or pwd.getpwuid(os.geteuid()).pw_name
        self.durable = durable
        self.process = None
        os.makedirs(self.folder)
        if self.user:
            shutil.chown(self.folder, self.user)
            shutil.chown(self.sockets, self.user)
        owner = {"user": self.user, "group": self.user, "extra_groups": []} if self.user else {}
        run([self._program("initdb"), "-D", self.folder, "--no-sync", "-A", "trust", "-E", "UTF8",
             "--locale=C", "-U", self.name], cwd=self.sockets, within=60, **owner)
        self.start()
        self.query("CREATE DATABASE fleet", "postgres")

    @property
    def url(self):
        return f"postgresql:///fleet?host={self.sockets}&user={self.name}"

    def _program(self, name):
        return os.path.join(self.programs, name)

    def start(self):
        settings = ["-c", "listen_addresses=", "-c", f"unix_socket_directories={self.sockets}",
                    "-c", f"fsync={'on' if self.durable else 'off'}"]
        self.process = Process([self._program("postgres"), "-D", self.folder, *settings], self.log,
                               cwd=self.sockets, user=self.user)
        wait_until(f"PostgreSQL, see {self.log}", self.answers)

    def answers(self):
        if not self.process.runs():
            raise Failure(f"PostgreSQL ended, see {self.log}")
        return subprocess.run(
            [self._program("pg_isready"), "-q", "-h", self.sockets, "-d", "postgres"],
            check=False).returncode == 0

    def stop(self, how=signal.SIGINT):
        """SIGINT ends it orderly; SIGQUIT as a crash does."""
        if self.process.runs():
            self.process.stop(how, within=60)

    def close(self):
        self.stop()
        shutil.rmtree(self.sockets)

    def query(self, text, database="fleet"):
        """The rows, as lists of texts."""
        output = run([self._program("psql"), "-X", "-q", "--csv", "-t", "-v", "ON_ERROR_STOP=1",
                      "-h", self.sockets, "-U", self.name, "-d", database, "-c", text], within=120)
        return list(csv.reader(io.StringIO(output)))

    def count(self):
        """How many records it has; 0 before a collector made its tables."""
        if self.query("SELECT to_regclass('entries') IS NULL")[0][0] == "t":
            return 0
        return int(self.query("SELECT count(*) FROM entries")[0][0])

    def covered(self):
        """How many ids are covered."""
        if self.query("SELECT to_regclass('sources') IS NULL")[0][0] == "t":
            return 0
        return int(self.query("SELECT coalesce(sum(upper(r) - lower(r)), 0) "
                              "FROM sources, unnest(covered) AS r")[0][0])

    def records(self):
        """Device, epoch, id, and COLUMNS of all records."""
        rows = self.query(f"SELECT device, epoch, id, {COLUMNS} FROM records")
        return [(row[0], row[1], *map(int, row[2:9]), row[9]) for row in rows]

    def refused(self):
        return {row[0]: int(row[1]) for row in self.query(
            "SELECT reason, sum(messages) FROM refusals GROUP BY reason")}

    def processor_seconds(self):
        return self.process.processor_seconds()


class Sqlite:
    """A file with the tables of a device's store. Each record has an origin: where it came from."""

    def __init__(self, folder):
        self.url = os.path.join(folder, "fleet.db")

    def close(self):
        pass

    def _rows(self, text):
        if not os.path.exists(self.url):
            return []
        connection = sqlite3.connect(f"file:{self.url}?mode=ro", uri=True, timeout=20)
        try:
            return connection.execute(text).fetchall()
        except sqlite3.OperationalError as error:
            if "no such table" in str(error):
                return []
            raise
        finally:
            connection.close()

    def count(self):
        return sum(row[0] for row in self._rows("SELECT count(*) FROM entries"))

    def check_order(self):
        """Fails unless the entries of each device and epoch are stored in the order of their ids."""
        ranges = self._rows("SELECT device, epoch, origin, last - first FROM origins ORDER BY first")
        ends = {}
        for device, epoch, origin, more in ranges:
            if origin <= ends.get((device, epoch), 0):
                raise Failure(f"entry {origin} of {device} is stored after a later one")
            ends[device, epoch] = origin + more
        if not ends:
            raise Failure("no entry has an origin")

    def covers(self, device):
        return bool(self._rows(f"SELECT 1 FROM coverage WHERE device = '{device}'"))

    def records(self):
        return self._rows(f"""
            SELECT o.device, o.epoch, o.origin + r.id - o.first, {COLUMNS}
            FROM records r LEFT JOIN origins o
                ON o.first = (SELECT max(first) FROM origins WHERE first <= r.id) AND r.id <= o.last""")
