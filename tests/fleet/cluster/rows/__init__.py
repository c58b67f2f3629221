# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""What can go wrong in a fleet, one module for each row of the table that script/stress prints.

Each has run(programs, folder, size). It returns what it measured, as pairs of a label and a value,
and raises Failure if something is not as it has to be. A size scales the number of records and the
lengths of faults: 1 is the real one, tests take less.
"""
