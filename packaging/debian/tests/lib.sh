# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# What the tests of installed packages share. They run in the source's folder; PLAYER is the example
# player, built from the installed development files.

WORK="${AUTOPKGTEST_TMP:-$(mktemp -d)}"
PLAYER="${PLAYER:-$WORK/tallyra-player}"
SERVICE=org.veltra.tv.tallyra.service
export REGDB_FILE="$WORK/regdb.ini" LOGSVC_OUTPUT=stderr LOGSVC_LEVEL=off

fail() {
    printf 'FAILED: %s\n' "$*" >&2
    exit 1
}

# wait_for WHAT COMMAND...: for at most 20 s
wait_for() {
    local deadline=$((SECONDS + 20))
    until "${@:2}" >/dev/null 2>&1; do
        ((SECONDS < deadline)) || fail "waited too long for $1"
        sleep 0.1
    done
}

build_player() {
    local flags
    read -ra flags < <(pkg-config --cflags --libs tallyra glib-2.0)
    g++ -std=c++20 -Wall -Werror examples/player/*.cpp "${flags[@]}" -o "$PLAYER"
}

ask_bus() {
    dbus-send --system --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        "org.freedesktop.DBus.$1" "${@:2}"
}

# Where no init has started the system bus, this one has no systemd: it starts services itself.
need_system_bus() {
    if ! ask_bus GetId >/dev/null 2>&1; then
        mkdir -p /run/dbus
        dbus-uuidgen --ensure
        dbus-daemon --system --nofork --nopidfile >"$WORK/bus.log" 2>&1 &
        BUS_PID=$!
        # shellcheck disable=SC2064 # the id as it is now
        trap "kill $BUS_PID" EXIT
        wait_for 'the system bus' ask_bus GetId
    fi
}

owner() {
    ask_bus GetConnectionUnixUser "string:$SERVICE" 2>/dev/null | awk '{ print $NF }'
}

stop_service() {
    if [[ -d /run/systemd/system ]]; then
        systemctl stop tallyra-service
    else
        start-stop-daemon --stop --oknodo --retry 20 --quiet --user tallyra \
            --exec /usr/bin/tallyra-service
    fi
    [[ -z "$(owner)" ]] || fail 'the service does not stop'
}

# play USER RECORDING: the player has collection switched on, and runs as another user than the service
play() {
    chmod 755 "$WORK"
    regdb set db/tallyra/log_on 1
    chmod 644 "$REGDB_FILE"
    setpriv --reuid "$1" --regid nogroup --clear-groups env HOME=/nonexistent \
        "$PLAYER" --app-id org.example.player --speed 100 "$2"
}

# How many records the store of the service has.
stored() {
    tallyra records --db /var/lib/tallyra/tallyra.db --format jsonl --limit -1 | wc -l
}

has_more_than() {
    (($(stored) > $1))
}

# check_activation RECORDS: the store has this many records. The first call of a player without
# privileges starts the service.
check_activation() {
    local before="$1"
    id tallyra >/dev/null || fail 'the package has made no user'
    [[ "$(systemctl --root=/ is-enabled tallyra-service)" == @(enabled|disabled) ]] ||
        fail 'systemd does not know the unit'
    stop_service
    play nobody examples/recordings/live-stalls.txt
    [[ "$(owner)" == "$(id -u tallyra)" ]] || fail 'the service does not run as its user'
    wait_for 'a record in the store' has_more_than "$before"
    [[ "$(stat -c '%U:%G %a' /var/lib/tallyra)" == 'tallyra:tallyra 750' ]] ||
        fail 'others may read the store'
    printf 'the bus started the service, which has stored %d records\n' "$(($(stored) - before))"
}
