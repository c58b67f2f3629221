# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Counts tests, out of the results that ctest writes.

PASSED=0
FAILED=0
SKIPPED=0
CONFIGURATIONS=()

# summary PASSED FAILED SKIPPED: as in "12 passed, 0 failed, 1 skipped"
summary() {
    printf '%d passed, %d failed' "$1" "$2"
    if (($3 > 0)); then
        printf ', %d skipped' "$3"
    fi
}

# count_results FILE: the numbers of passed, failed and skipped tests. A test that could not run,
# for the want of its program or of a fixture, has failed; one that declined to run was skipped.
count_results() {
    awk '
        /<testcase / {
            if (/status="run"/) passed++
            else if (/status="disabled"/) skipped++
            else if (/status="notrun"/) notrun = 1
            else failed++
        }
        notrun && /<skipped message="SKIP_/ { skipped++; notrun = 0 }
        /<\/testcase>/ { if (notrun) failed++; notrun = 0 }
        END { print passed + 0, failed + 0, skipped + 0 }' "$1"
}

# add_results CONFIGURATION FILE: fails where the file says anything but that tests ran and passed
add_results() {
    local passed failed skipped
    if [[ ! -f "$2" ]]; then
        printf '%s: ctest left no results\n' "$1"
        return 1
    fi
    read -r passed failed skipped < <(count_results "$2")
    CONFIGURATIONS+=("$(printf '%-6s %s' "$1" "$(summary "$passed" "$failed" "$skipped")")")
    PASSED=$((PASSED + passed))
    FAILED=$((FAILED + failed))
    SKIPPED=$((SKIPPED + skipped))
    ((passed > 0 && failed == 0))
}

print_configurations() {
    if ((${#CONFIGURATIONS[@]} > 0)); then
        printf '%s\n' "${CONFIGURATIONS[@]}" ''
    fi
}

print_total() {
    summary "$PASSED" "$FAILED" "$SKIPPED"
    printf '\n'
}
