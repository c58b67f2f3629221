#!/usr/bin/env python3
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Shows what the servers let devices and collectors do, with a client that asks for anything.

Usage: rights_test.py PROGRAMS
"""

import os
import shutil
import ssl
import sys
import tempfile
import unittest

from harness.certificates import Authority
from harness.fleet import Fleet
from harness.nats_client import Client, Credentials, Refused, Tls
from harness.nodes import Keys
from harness.processes import bound_time, run, wait_until

EPOCH = "0b7d2c0e-5a5e-4a3c-9a55-0f4f6a8f0c11"
VIOLATION = "Permissions Violation"


class Rights(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.mkdtemp(prefix="tallyra-rights-")
        cls.fleet = Fleet(PROGRAMS, cls.folder, database="sqlite")
        cls.authority, cls.nodes = cls.fleet.authority, cls.fleet.nodes
        cls.node = cls.nodes.all[0]
        cls.certificate = cls.authority.client("client")
        cls.fleet.make_stream()

    @classmethod
    def tearDownClass(cls):
        cls.fleet.close()
        shutil.rmtree(cls.folder)

    def setUp(self):
        self.clients = []

    def tearDown(self):
        for client in self.clients:
            client.close()

    def tls(self):
        return Tls(self.authority.certificate, self.certificate)

    def connect(self, credentials, tls=None, **options):
        client = Client(self.node.address, credentials, tls or self.tls(), **options)
        self.clients.append(client)
        return client

    def device(self, name):
        client = self.connect(Credentials(self.nodes.keys.credentials("device", name)),
                              inbox=f"_INBOX.{name}")
        client.records = f"tallyra.records.{name}.{EPOCH}"
        return client

    def collector(self, name="east"):
        return self.connect(Credentials(self.nodes.keys.credentials("collector", name)))

    def refuses(self, client, act, subject, *more):
        before = len(client.errors)
        act(subject, *more)
        client.flush()
        self.assertEqual(len(client.errors), before + 1, subject)
        self.assertIn(VIOLATION, client.errors[-1], subject)

    def allows(self, client, act, subject, *more):
        act(subject, *more)
        client.flush()
        self.assertEqual(client.errors, [], subject)

    def test_a_device_sends_in_its_own_name(self):
        device = self.device("tv-1")
        self.allows(device, device.publish, f"tallyra.records.tv-1.{EPOCH}")
        self.allows(device, device.publish, "tallyra.ask.tv-1")
        self.allows(device, device.subscribe, "tallyra.stored.tv-1")
        self.allows(device, device.subscribe, "_INBOX.tv-1.>")

    def test_a_device_does_not_send_in_the_name_of_another(self):
        device = self.device("tv-1")
        for subject in (f"tallyra.records.tv-2.{EPOCH}", f"tallyra.records.tv-1.{EPOCH}.more",
                        "tallyra.records.tv-1", f"tallyra.records.tv-10.{EPOCH}",
                        "tallyra.ask.tv-2", "tallyra.stored.tv-1", "tallyra.stored.tv-2",
                        "tallyra.bad.tv-1", "_INBOX.tv-2.reply", "$JS.API.STREAM.LIST",
                        "$JS.API.STREAM.DELETE.TALLYRA", "$JS.ACK.TALLYRA.collect.1.1.1.1.0",
                        "$SYS.REQ.SERVER.PING"):
            self.refuses(device, device.publish, subject)

    def test_a_device_does_not_see_what_concerns_others(self):
        device = self.device("tv-1")
        for subject in ("tallyra.stored.tv-2", "tallyra.stored.*", f"tallyra.records.tv-1.{EPOCH}",
                        "tallyra.records.*.*", "tallyra.records.>", "tallyra.ask.*", "tallyra.>",
                        "_INBOX.tv-2.>", "_INBOX.>", "_INBOX.*.>", ">", "*.>", "$SYS.>", "$JS.>"):
            self.refuses(device, device.subscribe, subject)

    def acknowledgement_goes_to(self, device, reply):
        """Sends a message, and returns when the server has acknowledged it and a second one."""
        device.publish(device.records, b"rubbish", reply)
        self.assertIn("seq", device.request(device.records, b"rubbish"))
        self.assertEqual(device.errors, [])

    def test_an_acknowledgement_that_a_device_sends_to_the_api_deletes_nothing(self):
        device, watcher = self.device("tv-1"), self.collector("watcher-2")
        for act in ("PURGE", "DELETE", "MSG.DELETE"):
            before = self.nodes.stream()["state"]
            # The acknowledgement of the last message names the message itself, so it exists.
            self.acknowledgement_goes_to(device, f"$JS.API.STREAM.{act}.TALLYRA")
            watcher.request("$JS.API.STREAM.INFO.TALLYRA")
            after = self.nodes.stream()["state"]
            self.assertEqual(after["messages"], before["messages"] + 2, act)
            self.assertEqual(after.get("num_deleted", 0), before.get("num_deleted", 0), act)

    def test_an_acknowledgement_under_the_name_of_another_is_not_stored(self):
        victim = f"tallyra.records.victim.{EPOCH}"
        self.acknowledgement_goes_to(self.device("tv-1"), victim)
        watcher = self.collector("watcher-2")
        waiting = watcher.request("$JS.API.STREAM.MSG.GET.TALLYRA",
                                  f'{{"last_by_subj":"{victim}"}}'.encode())
        self.assertIn("message", waiting)
        collector = self.fleet.start_collector()
        wait_until("an empty stream", lambda: self.fleet.stream_state()["messages"] == 0)
        collector.stop()
        aside = watcher.request("$JS.API.STREAM.MSG.GET.TALLYRA_BAD",
                                b'{"last_by_subj":"tallyra.bad.victim"}')
        self.assertEqual(aside["message"]["data"], waiting["message"]["data"])
        self.assertEqual(self.fleet.database.count(), 0)
        self.assertFalse(self.fleet.database.covers("victim"))

    def test_a_watermark_reaches_its_device_only(self):
        one, other, collector = self.device("tv-1"), self.device("tv-2"), self.collector()
        one.subscribe("tallyra.stored.tv-1")
        other.subscribe("tallyra.stored.tv-2")
        one.flush()
        other.flush()
        collector.publish("tallyra.stored.tv-1", b"mark")
        collector.publish("tallyra.stored.tv-2", b"other mark")
        self.assertEqual(one.next(5).body, b"mark")
        self.assertEqual(other.next(5).body, b"other mark")
        self.assertIsNone(one.next(0.2))

    def test_a_collector_collects(self):
        collector = self.collector()
        reply = collector.request("$JS.API.STREAM.CREATE.TALLYRA_TRY",
                                  b'{"name":"TALLYRA_TRY","subjects":["try.*"]}')
        self.assertNotIn("error", reply)
        for subject in ("$JS.ACK.TALLYRA.collect.1.1.1.1.0", "tallyra.stored.tv-1",
                        "tallyra.bad.tv-1"):
            self.allows(collector, collector.publish, subject)
        self.allows(collector, collector.subscribe, "tallyra.ask.*", "collectors")

    def test_a_collector_does_not_send_records(self):
        collector = self.collector()
        for subject in (f"tallyra.records.tv-1.{EPOCH}", "tallyra.records.tv-1", "tallyra.ask.tv-1",
                        "$SYS.REQ.SERVER.PING"):
            self.refuses(collector, collector.publish, subject)
        for subject in ("tallyra.records.>", "tallyra.>", ">", "$SYS.>"):
            self.refuses(collector, collector.subscribe, subject)

    def test_without_a_client_certificate_there_is_no_connection(self):
        credentials = Credentials(self.nodes.keys.credentials("device", "tv-3"))
        with self.assertRaises((ssl.SSLError, ConnectionError, Refused)):
            self.connect(credentials, Tls(self.authority.certificate))
        self.connect(credentials)

    def test_without_tls_there_is_no_connection(self):
        credentials = Credentials(self.nodes.keys.credentials("device", "tv-3"))
        with self.assertRaises((ConnectionError, Refused)):
            self.clients.append(Client(self.node.address, credentials))

    def test_a_certificate_of_another_authority_is_refused(self):
        other = Authority(os.path.join(self.folder, "others"))
        credentials = Credentials(self.nodes.keys.credentials("device", "tv-3"))
        with self.assertRaises((ssl.SSLError, ConnectionError, Refused)):
            self.connect(credentials, Tls(self.authority.certificate, other.client("client")))
        with self.assertRaises(ssl.SSLCertVerificationError):
            self.connect(credentials, Tls(other.certificate, self.certificate))

    def test_credentials_of_another_operator_are_refused(self):
        other = Keys(PROGRAMS, os.path.join(self.folder, "other-keys"))
        for role in ("device", "collector"):
            with self.assertRaisesRegex(Refused, "Authorization Violation"):
                self.connect(Credentials(other.credentials(role, "tv-1")))

    def test_without_credentials_nobody_is_accepted(self):
        with self.assertRaisesRegex(Refused, "Authorization Violation"):
            self.connect(None)

    def test_a_token_needs_the_key_it_was_made_for(self):
        mine = Credentials(self.nodes.keys.credentials("device", "tv-1"))
        mine.key = Credentials(self.nodes.keys.credentials("device", "tv-2")).key
        with self.assertRaisesRegex(Refused, "Authorization Violation"):
            self.connect(mine)

    def test_revoked_credentials_are_refused_and_new_ones_accepted(self):
        keys = self.nodes.keys
        revoked = Credentials(keys.credentials("device", "stolen"))
        self.connect(revoked)
        run([keys.program, "revoke", keys.folder, "stolen"])
        shutil.copy(os.path.join(keys.folder, "resolver.conf"), self.node.folder)
        run(["nats-server", "--signal", f"reload={self.node.process.pid}"])
        wait_until("the servers to refuse it", lambda: self.is_refused(revoked))
        self.connect(Credentials(keys.credentials("device", "stolen")))
        self.device("tv-1")

    def is_refused(self, credentials):
        """The server drops connections while it reloads, which says nothing."""
        try:
            self.connect(credentials)
        except OSError:
            return False
        except Refused as refusal:
            return "Authorization Violation" in str(refusal)
        return False


if __name__ == "__main__":
    if not shutil.which("nats-server"):
        print("nats-server is not installed")
        sys.exit(77)
    bound_time(100)
    PROGRAMS = sys.argv.pop(1)
    unittest.main(verbosity=2)
