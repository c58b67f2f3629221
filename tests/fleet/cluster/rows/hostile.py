# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Devices with good credentials send what they must not: for others, again and again, garbage, too
much, and ids that no store gives."""

import base64
import random
import struct
import time
import uuid

from harness.comparison import compare
from harness.devices import Device
from harness.fleet import Fleet
from harness.nats_client import Client, Credentials, Tls
from harness.processes import Failure, wait_until

TIMES = 10_000
RECORDS = 2_000
LARGE_MESSAGES = 300
LARGE_BYTES = 500 * 1024
MOST_BYTES = 1 << 20
TOO_LARGE = 10054
STRANGE = 4_500
FAR = 1 << 62
SETTLE_SECONDS = 300


def message_of(fleet, device):
    """One that the device has sent: its headers but the one that lets the server drop a repetition,
    and its body."""
    client = fleet.nodes.client(fleet.nodes.all[0])
    try:
        reply = client.request("$JS.API.STREAM.MSG.GET.TALLYRA",
                               f'{{"last_by_subj":"{subject_of(device)}"}}'.encode())
    finally:
        client.close()
    head = base64.b64decode(reply["message"]["hdrs"]).decode()
    headers = [tuple(line.split(": ", 1)) for line in head.split("\r\n")[1:] if ": " in line]
    return ([each for each in headers if each[0] != "Nats-Msg-Id"],
            base64.b64decode(reply["message"]["data"]))


def subject_of(device):
    return f"tallyra.records.{device.name}.{device.epoch()}"


def malformed(body, epoch, source, number):
    """A message that is wrong in one of many ways, but never right."""
    kind = number % 5
    if kind == 0:
        return source.randbytes(source.randrange(0, 200))
    if kind == 1:
        return body[:source.randrange(0, len(body))]
    if kind == 2:
        return b"\x07" + body[1:]
    if kind == 3:
        return body[:16] + source.randbytes(len(body) - 16)
    count = struct.pack("<H", source.randrange(25, 65536))
    return body[:2] + count + body[4:]


def forge(client, other, headers, body, times):
    """Returns how many the server refused."""
    before = len(client.errors)
    message = client.encode(subject_of(other), body, headers=headers)
    client.publish_all([message] * times)
    errors = client.errors[before:]
    return sum("Permissions Violation" in error for error in errors)


def send_slowly(fleet, client, messages):
    """Sends no more than the stream takes: it would drop what is too much, as it has no reply."""
    for start in range(0, len(messages), 500):
        client.publish_all(messages[start:start + 500])
        wait_until("room in the stream", lambda: has_room(fleet), 60, 0.1)


def has_room(fleet):
    stream = fleet.nodes.stream()
    return stream and stream["state"]["messages"] < 2000


def refused(fleet):
    return sum(fleet.database.refused().values())


def connect(fleet, name):
    tls = Tls(fleet.authority.certificate, fleet.authority.client(f"{name}-too"))
    return Client(fleet.nodes.all[0].address, Credentials(fleet.nodes.keys.credentials("device", name)),
                  tls, inbox=f"_INBOX.{name}")


def send_too_large(client, subject):
    """The largest message that the server reads is more than the stream takes."""
    reply = client.request(subject, bytes(MOST_BYTES), within=20)
    if not reply or reply.get("error", {}).get("err_code") != TOO_LARGE:
        raise Failure(f"a message of {MOST_BYTES} bytes got {reply}")


def send_large_ones_first(fleet, client, attacker, source, times):
    """They are ahead of what an honest device sends. Returns it."""
    before = refused(fleet)
    for collector in fleet.collectors:
        collector.stop()
    large = client.encode(subject_of(attacker), source.randbytes(LARGE_BYTES), headers=[])
    client.publish_all([large] * times)
    honest = fleet.add_device("honest")
    honest.fill(RECORDS, 3)
    honest.start()
    honest.await_all_sent(SETTLE_SECONDS)
    waiting = fleet.nodes.stream()["state"]["bytes"]
    if waiting < times * LARGE_BYTES:
        raise Failure(f"of {times} large messages {waiting} bytes wait")
    for collector in fleet.collectors:
        collector.start()
    wait_until("the honest records", lambda: fleet.database.count() >= 3 * RECORDS, SETTLE_SECONDS)
    wait_until("the large ones", lambda: refused(fleet) - before >= times, SETTLE_SECONDS, 0.5)
    return honest


def strange(body, device, number):
    """A well-formed message: of a new epoch each, with a gap before it, or with ids at the end."""
    epoch = str(uuid.UUID(int=number + 1 if number % 3 == 0 else number % 3 << 96))
    first = (1, 1000 * number, FAR + 1000 * number)[number % 3]
    after = (0, 1000 * number - 1, FAR)[number % 3]
    data = body[:4] + bytes.fromhex(epoch[:8]) + struct.pack("<q", first) + body[16:]
    return f"tallyra.records.{device.name}.{epoch}", data, str(after)


def send_strange_ones(fleet, headers, body, times):
    """In the name of a device that has no store. Returns it."""
    device = Device(fleet, "strange")
    client = connect(fleet, device.name)
    others = [each for each in headers if each[0] != "Tallyra-After"]
    messages = []
    for number in range(times):
        subject, data, after = strange(body, device, number)
        messages.append(client.encode(subject, data, headers=[*others, ("Tallyra-After", after)]))
    send_slowly(fleet, client, messages)
    client.close()
    wait_until("the strange ones", lambda: fleet.stream_state()["messages"] == 0, SETTLE_SECONDS)
    return device


def compare_honest(fleet, strange_device):
    """Returns how many records of honest devices and of the strange one are stored, each once."""
    stored = fleet.database.records()
    strange_ones = [row for row in stored if row[0] == strange_device.name]
    compare({row[:3] for row in strange_ones}, [row[:3] for row in strange_ones])
    return (compare(fleet.expected(), [row for row in stored if row[0] != strange_device.name]),
            len(strange_ones))


def check_strange(times, refused_ones, stored, body):
    """Each of those with ids at the end is refused, and each that is not refused is stored once."""
    records = struct.unpack_from("<H", body, 2)[0]
    far = len(range(2, times, 3))
    if not far <= refused_ones < times or stored != (times - refused_ones) * records:
        raise Failure(f"of {times} strange messages {refused_ones} were refused, {far} have ids at the "
                      f"end; {stored} records of {records} each are stored")


def run(programs, folder, size):
    times = round(TIMES * size)
    large = round(LARGE_MESSAGES * size)
    source = random.Random(1)
    with Fleet(programs, folder) as fleet:
        fleet.make_stream()
        victim, attacker = fleet.add_device("victim"), fleet.add_device("attacker")
        for device, seed in ((victim, 1), (attacker, 2)):
            device.fill(RECORDS, seed)
            device.start()
            device.await_all_sent(SETTLE_SECONDS)
            device.stop()
        headers, body = message_of(fleet, attacker)
        foreign_headers, foreign_body = message_of(fleet, victim)
        collector = fleet.start_collector()
        fleet.await_stored(2 * RECORDS, SETTLE_SECONDS)
        client = connect(fleet, "attacker")
        begin = time.monotonic()
        forged = forge(client, victim, foreign_headers, foreign_body, times)
        mine = subject_of(attacker)
        send_slowly(fleet, client, [client.encode(mine, body, headers=headers)] * times)
        wait_until("the replays", lambda: fleet.stream_state()["messages"] == 0, SETTLE_SECONDS)
        replayed_refused = refused(fleet)
        send_slowly(fleet, client, [
            client.encode(mine, malformed(body, attacker.epoch(), source, number), headers=headers)
            for number in range(times)])
        wait_until("the malformed ones", lambda: refused(fleet) - replayed_refused >= times,
                   SETTLE_SECONDS, 0.5)
        counted = refused(fleet) - replayed_refused
        send_too_large(client, mine)
        honest = send_large_ones_first(fleet, client, attacker, source, large)
        before_strange = refused(fleet)
        strange_device = send_strange_ones(fleet, headers, body, round(STRANGE * size))
        strange_refused = refused(fleet) - before_strange
        honest.fill(RECORDS, 4)
        fleet.await_watermarks(SETTLE_SECONDS, [honest])
        put_aside = fleet.nodes.stream("TALLYRA_BAD")["state"]["messages"]
        client.close()
        fleet.check_running()
        memory = collector.process.resident_kib()
        stored, strange_stored = compare_honest(fleet, strange_device)
    check_strange(round(STRANGE * size), strange_refused, strange_stored, body)
    if (forged, replayed_refused, counted) != (times, 0, times):
        raise Failure(f"of {times} each: {forged} forged ones refused, {replayed_refused} replayed "
                      f"ones refused, {counted} malformed ones counted")
    return [("forged, refused by the server", forged), ("replayed", times), ("replayed, stored again", stored - 4 * RECORDS),
            ("too large, refused by the server", 1),
            (f"of {LARGE_BYTES // 1024} KiB ahead of honest ones, counted", large),
            ("gaps, epochs and ids near the end", round(STRANGE * size)),
            ("of these refused", strange_refused), ("of these, records stored", strange_stored),
            ("malformed, counted", counted), ("malformed, put aside", put_aside),
            ("records stored exactly once", stored), ("collector afterwards, KiB", memory),
            ("seconds", round(time.monotonic() - begin))]
