# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Runs tests on dbus-broker instead of dbus-daemon. Its launcher exits if it finds no journal to log
# to. On a machine without one, a socket takes its place, in a mount namespace of the tests.

JOURNAL_SOCKET=/run/systemd/journal/socket

# Runs a command with mounts and processes of its own, which end with it.
NAMESPACE=(unshare --mount --pid --fork --kill-child --mount-proc)
((EUID == 0)) || NAMESPACE+=(--map-root-user)

namespace_allowed() {
    "${NAMESPACE[@]}" true 2>/dev/null
}

# on_broker COMMAND...: replaces the calling process
on_broker() {
    export TALLYRA_TEST_BUS=dbus-broker
    [[ ! -S "$JOURNAL_SOCKET" ]] || exec "$@"
    # shellcheck disable=SC2016 # the $ are for the inner shell
    exec "${NAMESPACE[@]}" bash -euc '
        socket="$1"
        shift
        mount -t tmpfs tmpfs /run
        mkdir -p "${socket%/*}"
        socat -u "UNIX-RECV:$socket" OPEN:/dev/null &
        until [[ -S "$socket" ]]; do sleep 0.05; done
        "$@"' bash "$JOURNAL_SOCKET" "$@"
}
