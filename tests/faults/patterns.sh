#!/bin/sh
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
# patterns.sh BUILD DOCUMENT...: fails when a pattern in a document selects no test of the build.
# Patterns are in the last column of tables, under "shown by", and in ctest commands in the text.

set -euf
tests="$(ctest --test-dir "$1" -N | sed -n 's/^ *Test *#[0-9]*: //p')"
shift

# shellcheck disable=SC2016 # the backquotes are those of the document
patterns() {
    sed -n '/| shown by |$/,/^$/s/.* | \(.*\) |$/\1/p' "$1" | grep -o '`[^`]*`' | tr -d '`'
    grep -o 'ctest --preset gcc -R '\''[^'\''`]*' "$1" | sed "s/.*'//" | tr '|' '\n'
}

failed=0
for document in "$@"; do
    found="$(patterns "$document")"
    [ -n "$found" ] || { printf '%s names no tests\n' "$document" && failed=1; }
    for pattern in $found; do
        if ! printf '%s\n' "$tests" | grep -qE -- "$pattern"; then
            printf '%s: no test matches %s\n' "$document" "$pattern"
            failed=1
        fi
    done
done
exit "$failed"
