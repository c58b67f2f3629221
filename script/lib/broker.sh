# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Runs tests on dbus-broker instead of dbus-daemon. Its launcher ends when it finds no journal to log
# to. Where there is none, a socket stands in for it, in a mount namespace that ends with the tests.

JOURNAL_SOCKET=/run/systemd/journal/socket

broker_namespace() {
    local user=()
    ((EUID == 0)) || user=(--map-root-user)
    unshare --mount "${user[@]}" --pid --fork --kill-child --mount-proc "$@"
}

broker_can_run() {
    [[ -S "$JOURNAL_SOCKET" ]] || broker_namespace true 2>/dev/null
}

# on_broker COMMAND...
on_broker() {
    export TALLYRA_TEST_BUS=dbus-broker
    if [[ -S "$JOURNAL_SOCKET" ]]; then
        "$@"
    else
        # shellcheck disable=SC2016 # the $ are for the shell inside
        broker_namespace bash -euc '
            socket="$1"
            shift
            mount -t tmpfs tmpfs /run
            mkdir -p "${socket%/*}"
            socat -u "UNIX-RECV:$socket" OPEN:/dev/null &
            until [[ -S "$socket" ]]; do sleep 0.05; done
            "$@"' bash "$JOURNAL_SOCKET" "$@"
    fi
}
