# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Shared by all scripts: paths, messages, --help, builds, and child processes that end with the script.

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
BUILD="$ROOT/build"
JOBS="${JOBS:-$(nproc)}"
SCRIPT_NAME="script/$(basename "$0")"

# Tools' messages are parsed; translated ones would not match.
export LC_ALL=C.UTF-8
# ninja's progress: done/total and the seconds so far.
export NINJA_STATUS="${NINJA_STATUS:-[%f/%t %es] }"
# The compiler cache outlives the removal of a single build. A build in another folder may reuse an
# object: only the folder's name in the debug information differs.
export CCACHE_DIR="${CCACHE_DIR:-$BUILD/ccache}"
export CCACHE_NOHASHDIR="${CCACHE_NOHASHDIR:-1}"
# ccache needs these to cache what is compiled with a precompiled header.
export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS:-pch_defines,time_macros}"
# The caller's bus, settings and log are not for tests and measurements.
unset DBUS_SYSTEM_BUS_ADDRESS DBUS_SESSION_BUS_ADDRESS REGDB_FILE
unset LOGSVC_LEVEL LOGSVC_OUTPUT TALLYRA_TEST_BUS

die() {
    printf '%s: %s\n' "$SCRIPT_NAME" "$*" >&2
    exit 1
}

bad_argument() {
    die "unknown argument \"$1\"; see --help"
}

# need_number OPTION VALUE: fails unless the value is a whole number, 1 or more
need_number() {
    [[ "$2" =~ ^[1-9][0-9]*$ ]] || die "$1 takes a number, 1 or more"
}

# The time since the script began, such as "12s" or "3m05s".
elapsed() {
    if ((SECONDS < 60)); then
        printf '%ds' "$SECONDS"
    else
        printf '%dm%02ds' $((SECONDS / 60)) $((SECONDS % 60))
    fi
}

headline() {
    printf '\n=== [%s] %s\n' "$(elapsed)" "$*"
}

# run_quietly LOG COMMAND...: shows the command's output only if it fails
run_quietly() {
    local log="$1"
    shift
    mkdir -p "$(dirname "$log")"
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# configure PRESET [OPTION...]
configure() {
    printf 'configuring build/%s\n' "$1"
    (cd "$ROOT" && run_quietly "$BUILD/log/configure-$1.log" cmake --preset "$@") ||
        die "cannot configure build/$1"
}

# build PRESET [TARGET...]: configures the preset and builds the targets, or all of them
build() {
    configure "$1"
    run ninja -C "$BUILD/$1" -j "$JOBS" "${@:2}" || die 'the build failed'
}

# project_files PATTERN...: the project's files that match, relative to the root: tracked files and
# new ones that git does not ignore; in an unpacked archive, every file outside the build folder
project_files() {
    local file pattern
    list_files | while IFS= read -r file; do
        for pattern in "$@"; do
            # shellcheck disable=SC2053 # the right side is a pattern
            if [[ "$file" == $pattern && -f "$ROOT/$file" ]]; then
                printf '%s\n' "$file"
                break
            fi
        done
    done
}

# In CI the clone often belongs to another user than the one that runs the script.
list_files() {
    git -c safe.directory="$ROOT" -c core.quotePath=off -C "$ROOT" \
        ls-files --cached --others --exclude-standard 2>/dev/null ||
        (cd "$ROOT" && find . -path ./build -prune -o -type f -printf '%P\n')
}

# Sets up $1 as an empty folder for the processes of a run. A bus has its socket in the temporary
# folder, and a socket's path has at most 107 characters.
prepare_run_folder() {
    rm -rf "$1"
    mkdir -p "$1"
    if ((${#1} < 70)); then
        export TMPDIR="$1"
    fi
}

# The names of the running child processes, by process id.
declare -A PROCESSES=()
# Every child process that was started.
STARTED=()
# How long stop waits for SIGTERM to take effect, in seconds.
STOP_LIMIT=20

# started NAME: registers the process that was just started in the background; sets PID
started() {
    PID=$!
    PROCESSES[$PID]="$1"
    STARTED+=("$PID")
}

# finish PID: waits for the process and returns its status
finish() {
    local status=0
    wait "$1" || status=$?
    unset "PROCESSES[$1]"
    return "$status"
}

# run COMMAND...: runs it in the background and waits for it: bash handles no signal while it waits
# for a foreground command
run() {
    "$@" &
    started "$1"
    finish "$PID"
}

# stop PID: sends SIGTERM, and SIGKILL if that does not end the process within STOP_LIMIT; returns
# its status
stop() {
    local deadline=$((SECONDS + STOP_LIMIT))
    kill -TERM "$1" 2>/dev/null || true
    while kill -0 "$1" 2>/dev/null; do
        if ((SECONDS >= deadline)); then
            printf '%s: killing %s, which ignores SIGTERM\n' "$SCRIPT_NAME" "${PROCESSES[$1]}" >&2
            kill -KILL "$1" 2>/dev/null || true
            break
        fi
        sleep 0.02
    done
    finish "$1"
}

stop_all_processes() {
    local pid
    trap '' INT TERM HUP
    for pid in "${!PROCESSES[@]}"; do
        stop "$pid" || true
    done
}

trap stop_all_processes EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# With --help among the arguments, the script prints the comment lines "#>" at its top and exits.
for argument in "$@"; do
    if [[ "$argument" == -h || "$argument" == --help ]]; then
        sed -n 's/^#> \{0,1\}//p' "$0"
        exit 0
    fi
done
unset argument
