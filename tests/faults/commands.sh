#!/bin/sh
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
# commands.sh DOCUMENT BUILD: fails when a command of the document selects no test of the build.

set -euf
document="$1"
build="$2"
failed=0
checked=0

patterns="$(grep -o 'ctest --preset gcc -R [^`]*' "$document" |
    sed -e 's/^ctest --preset gcc -R //' -e "s/'//g")"
for pattern in $patterns; do
    checked=$((checked + 1))
    if ctest --test-dir "$build" -N -R "$pattern" | grep -q '^Total Tests: 0$'; then
        printf 'no test matches %s\n' "$pattern"
        failed=1
    fi
done
printf 'checked %d commands\n' "$checked"
[ "$checked" -gt 0 ] && [ "$failed" -eq 0 ]
