#!/usr/bin/env bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
#> Usage: own-network.sh run COMMAND...   runs it in a network namespace with a link of its own
#>        own-network.sh up|down          adds or deletes the default route

set -euo pipefail

case "$1" in
    run)
        ip link set lo up
        ip link add va type veth peer name vb
        ip addr add 10.77.1.1/24 dev va
        ip link set va up
        ip link set vb up
        exec "${@:2}"
        ;;
    up) ip route replace default via 10.77.1.2 dev va ;;
    down) ip route del default 2>/dev/null || true ;;
esac
