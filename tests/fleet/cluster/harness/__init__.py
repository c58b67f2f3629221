# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
"""A fleet on one machine: servers, database, devices and collectors, each a process of its own."""
