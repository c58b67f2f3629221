#!/bin/sh
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
# commands.sh DOCUMENT BUILD: fails when a command of the document selects no test of the build.

set -euf
patterns="$(grep -o 'ctest --preset gcc -R [^`]*' "$1" |
    sed -e 's/^ctest --preset gcc -R //' -e "s/'//g")"
failed=0
for pattern in $patterns; do
    if ctest --test-dir "$2" -N -R "$pattern" | grep -q '^Total Tests: 0$'; then
        printf 'no test matches %s\n' "$pattern"
        failed=1
    fi
done
[ -n "$patterns" ] && [ "$failed" -eq 0 ]
