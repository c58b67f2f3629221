# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""Compares what the database has with what the devices have, key by key."""

from collections import Counter

from .processes import Failure

SHOWN = 5


class Difference(Failure):
    pass


def compare(expected, stored):
    """Fails unless both hold the same records, each once."""
    twice = [key for key, times in Counter(row[:3] for row in stored).items() if times > 1]
    missing = set(expected) - set(stored)
    strange = set(stored) - set(expected)
    if twice or missing or strange or len(stored) != len(expected):
        raise Difference(
            f"{len(expected)} expected, {len(stored)} stored: "
            f"{len(missing)} missing {sorted(missing)[:SHOWN]}, "
            f"{len(strange)} that no device has {sorted(strange)[:SHOWN]}, "
            f"{len(twice)} stored twice {twice[:SHOWN]}")
    return len(stored)


def per_device(rows):
    return Counter(row[0] for row in rows)
