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

# headline TEXT: after the time since the script began
headline() {
    printf '\n=== [%dm%02ds] %s\n' $((SECONDS / 60)) $((SECONDS % 60)) "$*"
}

# run_quietly LOG COMMAND...: shows the command's output only if it fails
run_quietly() {
    mkdir -p "$(dirname "$1")"
    if ! "${@:2}" >"$1" 2>&1; then
        cat "$1" >&2
        return 1
    fi
}

# configure PRESET
configure() {
    printf 'configuring build/%s\n' "$1"
    (cd "$ROOT" && run_quietly "$BUILD/log/configure-$1.log" cmake --preset "$1") ||
        die "cannot configure build/$1"
}

# build PRESET [TARGET...]: configures the preset and builds the targets, or all of them
build() {
    configure "$1"
    run ninja -C "$BUILD/$1" -j "$JOBS" "${@:2}" || die 'the build failed'
}

# project_files PATTERN...: the project's files that match, relative to the root: all that git does
# not ignore. An empty repository in the build folder makes all of them new ones, so that this also
# works in an unpacked archive and in another user's clone.
project_files() {
    git init --quiet --bare "$BUILD/files.git"
    git --git-dir="$BUILD/files.git" --work-tree="$ROOT" -C "$ROOT" -c core.quotePath=off \
        ls-files --others --exclude-standard -- "$@"
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

# How long stop waits for SIGTERM to take effect, in seconds.
STOP_LIMIT=20

# run COMMAND...: bash handles no signal while it waits for a foreground command
run() {
    "$@" &
    wait $!
}

# stop PID: sends SIGTERM, and SIGKILL if that does not end the child process within STOP_LIMIT;
# returns its status
stop() {
    kill -TERM "$1" 2>/dev/null || true
    if ! timeout "$STOP_LIMIT" tail --pid="$1" --sleep-interval=0.02 -f /dev/null; then
        printf '%s: killing process %s, which ignores SIGTERM\n' "$SCRIPT_NAME" "$1" >&2
        kill -KILL "$1" 2>/dev/null || true
    fi
    wait "$1" 2>/dev/null
}

stop_all_processes() {
    local pid
    trap '' INT TERM HUP
    for pid in $(jobs -pr); do
        stop "$pid" || true
    done
}

trap stop_all_processes EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

# With --help among the arguments, the script prints the comment lines "#>" at its top and exits.
if [[ " $* " == *' -h '* || " $* " == *' --help '* ]]; then
    sed -n 's/^#> \{0,1\}//p' "$0"
    exit 0
fi
