# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# script/check memory: tests under Valgrind's memcheck, which reports invalid and uninitialised
# memory, and memory that is definitely or possibly lost. tests/support/valgrind.supp lists what is
# by design or of other libraries.

MEMCHECK="$BUILD/memcheck"
MEMCHECK_PROGRAMS=(tallyra-integration-tests tallyra-proxy-tests tallyra-host-tests)

# Valgrind is too slow for a reply of 20 MiB, which the library does not wait for that long, and a
# process with few descriptors has none left for it.
NOT_FOR_MEMCHECK='-CHugeReplyTest.*:*CFewDescriptorsTest.*'

# Also follows what the programs start, except for programs of the system.
VALGRIND=(valgrind --tool=memcheck --error-exitcode=99 --num-callers=40 --leak-check=full
    '--show-leak-kinds=definite,possible' '--errors-for-leak-kinds=definite,possible'
    "--suppressions=$ROOT/tests/support/valgrind.supp"
    --trace-children=yes '--trace-children-skip=/usr/*,/bin/true')

# memcheck PROGRAM
memcheck() {
    local status=0
    headline "$1"
    run "${VALGRIND[@]}" --log-file="$MEMCHECK/$1.%p" "$BUILD/gcc/bin/$1" --gtest_brief=1 \
        --gtest_filter="$NOT_FOR_MEMCHECK" || status=$?
    # A process that replaced itself by one of the system's programs leaves no summary.
    printf '%s: status %d, %d processes checked\n' "$1" "$status" \
        "$(grep -l 'ERROR SUMMARY' "$MEMCHECK/$1".* | wc -l)"
    if grep -l 'ERROR SUMMARY: [^0]' "$MEMCHECK/$1".*; then
        printf '%s: these reports have findings\n' "$1"
        return 1
    fi
    return "$status"
}

check_memory() {
    local program status=0
    for program in "$@"; do
        [[ " ${MEMCHECK_PROGRAMS[*]} " == *" $program "* ]] || bad_argument "$program"
    done
    (($# > 0)) || set -- "${MEMCHECK_PROGRAMS[@]}"
    "$ROOT/script/bootstrap" memory
    build gcc "$@"
    rm -rf "$MEMCHECK"
    mkdir -p "$MEMCHECK"
    for program in "$@"; do
        memcheck "$program" || status=1
    done
    ((status == 0)) || die 'memcheck found something, or a test failed; see build/memcheck'
}
