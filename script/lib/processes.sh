# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Keeps track of the processes that a script starts, so that none outlives it. A script that uses
# this calls end_all_processes_at_exit before it starts the first.

# Name of each running process, by its id.
declare -A PROCESSES=()
# All that were ever started.
STARTED=()
STOP_LIMIT=20

# A child that bash waits for in the foreground would hold up a signal to the script: whatever takes
# long is therefore started here and waited for with finish.
end_all_processes_at_exit() {
    trap end_all_processes EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
}

# started NAME: takes note of the process that was just started in the background; sets PID
started() {
    PID=$!
    PROCESSES[$PID]="$1"
    STARTED+=("$PID")
}

# finish PID: waits for its end and returns its status
finish() {
    local status=0
    wait "$1" || status=$?
    unset "PROCESSES[$1]"
    return "$status"
}

# Waits until a process is gone, at most so many seconds.
wait_until_gone() {
    local deadline=$((SECONDS + $2))
    while kill -0 "$1" 2>/dev/null; do
        if ((SECONDS >= deadline)); then
            return 1
        fi
        sleep 0.02
    done
}

# stop PID: asks the process to end, waits for that and returns its status. One that does not end is
# killed, which its status then tells.
stop() {
    kill -TERM "$1" 2>/dev/null || true
    if ! wait_until_gone "$1" "$STOP_LIMIT"; then
        printf '%s: %s does not end; killed\n' "$SCRIPT_NAME" "${PROCESSES[$1]}" >&2
        kill -KILL "$1" 2>/dev/null || true
    fi
    finish "$1"
}

end_all_processes() {
    local pid
    trap '' INT TERM HUP
    for pid in "${!PROCESSES[@]}"; do
        stop "$pid" || true
    done
}
