# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Runs tests with ctest and counts them from the JUnit file that it writes.

# One line for each run of tests, followed by the reasons of its skipped ones.
TEST_SUMMARY=()
PASSED=0
FAILED=0
SKIPPED=0

# Sanitizers: unwind completely, since libdbus has no frame pointers and leaks by design are
# recognised by their caller in libdbus; record 10 frames, enough to reach that caller, because
# unwinding 30 takes most of a test's time; stop at the first report.
set_sanitizer_options() {
    local support="$ROOT/tests/support"
    export ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:malloc_context_size=10
    ASAN_OPTIONS+=:detect_stack_use_after_return=1:strict_string_checks=1
    export LSAN_OPTIONS="suppressions=$support/lsan.supp:print_suppressions=0"
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export TSAN_OPTIONS="suppressions=$support/tsan.supp:second_deadlock_stack=1"
}

# count_tests NAME FILE: adds a JUnit file to the summary. A test that could not run, because its
# program or a fixture was missing, failed; CTest counts it as skipped.
count_tests() {
    local all passed failed skipped
    all="$(grep -c '<testcase ' "$2" || true)"
    skipped="$(grep -c -e '<skipped message="SKIP_' -e 'status="disabled"' "$2" || true)"
    passed=$(($(grep -c '<testcase .* status="run"' "$2" || true)))
    failed=$((all - passed - skipped))
    TEST_SUMMARY+=("$(printf '%-8s %5d asserted and passed, %d failed, %d skipped' \
        "$1" "$passed" "$failed" "$skipped")")
    if ((skipped > 0)); then
        TEST_SUMMARY+=("$(sed -n '/: Skipped$/{n;p}' "$2" | sort | uniq -c | sort -rn |
            sed 's/^ *\([0-9]*\) /           \1 skipped: /')")
    fi
    PASSED=$((PASSED + passed))
    FAILED=$((FAILED + failed))
    SKIPPED=$((SKIPPED + skipped))
    ((passed > 0 && failed == 0))
}

# run_tests NAME FOLDER [OPTION...]: runs the tests of a build folder with these options of ctest,
# under the command in RUNNER if that is set, and adds them to the summary
run_tests() {
    local results="$BUILD/log/ctest-$1.xml" status=0
    mkdir -p "$BUILD/log"
    rm -f "$results"
    set_sanitizer_options
    # The reason of a skipped test stands in its output.
    run ${RUNNER:+"$RUNNER"} ctest --test-dir "$BUILD/$2" -j "$JOBS" --no-tests=error \
        --output-on-failure --test-output-size-passed 16384 --output-junit "$results" "${@:3}" ||
        status=1
    [[ -f "$results" ]] || die "$1: ctest wrote no results"
    count_tests "$1" "$results" || status=1
    return "$status"
}

print_test_summary() {
    if ((${#TEST_SUMMARY[@]} > 0)); then
        printf '%s\n' "${TEST_SUMMARY[@]}"
        printf '%-8s %5d asserted and passed, %d failed, %d skipped\n' \
            total "$PASSED" "$FAILED" "$SKIPPED"
    fi
}
