# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# What every script shares: where things are, how progress and failure are told.

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
BUILD="$ROOT/build"
JOBS="${JOBS:-$(nproc)}"
SCRIPT_NAME="script/$(basename "$0")"

# Tools' messages are compared and parsed; a translated one would not match.
export LC_ALL=C.UTF-8
# ninja's progress: done/total and the seconds so far.
export NINJA_STATUS="${NINJA_STATUS:-[%f/%t %es] }"
# The compiler cache stays in the build folder, and outlives the removal of a single build.
export CCACHE_DIR="${CCACHE_DIR:-$BUILD/ccache}"
# What the cache has to be told before it keeps what was made with a precompiled header.
export CCACHE_SLOPPINESS="${CCACHE_SLOPPINESS:-pch_defines,time_macros}"

die() {
    printf '%s: %s\n' "$SCRIPT_NAME" "$*" >&2
    exit 1
}

# Prints a script's help: the comment between the marks "#>" at its top.
usage() {
    sed -n 's/^#> \{0,1\}//p' "$0"
}

# For scripts that take no argument but --help.
expect_no_arguments() {
    case "${1:-}" in
        '') ;;
        -h | --help)
            usage
            exit 0
            ;;
        *) die "unknown argument \"$1\"; see --help" ;;
    esac
}

# seconds since the script began, as in "12s" or "3m05s"
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

# run_quietly LOG COMMAND...: shows the command's output only when it fails
run_quietly() {
    local log="$1"
    shift
    mkdir -p "$(dirname "$log")"
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        return 1
    fi
}

# configure PRESET: takes about a second where nothing changed
configure() {
    printf 'configuring %s\n' "build/$1"
    (cd "$ROOT" && run_quietly "$BUILD/log/configure-$1.log" cmake --preset "$1")
}

# The project's files that match the patterns, relative to the root: tracked, or new and not
# ignored. Without git (an unpacked archive) it is everything outside the build folder.
project_files() {
    local file
    if git_here rev-parse --is-inside-work-tree >/dev/null 2>&1; then
        # What is deleted but not yet committed is still listed.
        git_here ls-files --cached --others --exclude-standard -- "$@" | sort -u |
            while IFS= read -r file; do
                if [[ -f "$ROOT/$file" ]]; then
                    printf '%s\n' "$file"
                fi
            done
    else
        find_files "$@"
    fi
}

# In CI the clone often belongs to another user than the one who runs this.
git_here() {
    git -c safe.directory="$ROOT" -c core.quotePath=off -C "$ROOT" "$@"
}

find_files() {
    local pattern
    (
        cd "$ROOT" || exit
        for pattern in "$@"; do
            find . -path ./build -prune -o -type f -path "./$pattern" -print
            find . -path ./build -prune -o -type f -path "./*/$pattern" -print
        done
    ) | sed 's|^\./||' | sort -u
}
