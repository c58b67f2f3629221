# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Runs tests with ctest and counts them from the JUnit file that it writes.

# One line for each run of tests, followed by its skipped ones, and the sums over all runs.
TEST_SUMMARY=()
PASSED=0
FAILED=0
SKIPPED=0

# Sanitizers: unwind completely, since libdbus has no frame pointers and leaks by design are
# recognised by their caller in libdbus; stop at the first report.
set_sanitizer_options() {
    local support="$ROOT/tests/support"
    export ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0
    ASAN_OPTIONS+=:detect_stack_use_after_return=1:strict_string_checks=1
    export LSAN_OPTIONS="suppressions=$support/lsan.supp:print_suppressions=0"
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
    export TSAN_OPTIONS="suppressions=$support/tsan.supp:second_deadlock_stack=1"
}

# Prints "passed N", "failed N", and "skipped REASON" for each skipped test of a JUnit file. A test
# that could not run, because its program or a fixture was missing, failed.
read_results() {
    awk '
        function end_test() {
            if (state == "run") passed++
            else if (state == "skipped" || state == "disabled") print "skipped " reason
            else failed++
        }
        /<testcase / {
            state = "failed"
            reason = "no reason given"
            if (/status="run"/) state = "run"
            else if (/status="disabled"/) state = "disabled"
        }
        /<skipped message="SKIP_/ { state = "skipped" }
        wanted && NF { reason = $0; wanted = 0 }
        /: Skipped$/ { wanted = 1 }
        /<\/testcase>/ { end_test(); wanted = 0 }
        END { print "passed " passed + 0; print "failed " failed + 0 }' "$1" |
        sed "s/&apos;/'/g; s/&quot;/\"/g; s/&lt;/</g; s/&gt;/>/g; s/&amp;/\\&/g"
}

# count_tests NAME FILE: adds the file to the summary; fails unless tests passed and none failed
count_tests() {
    local results passed failed skipped
    if [[ ! -f "$2" ]]; then
        printf '%s: ctest wrote no results\n' "$1"
        return 1
    fi
    results="$(read_results "$2")"
    passed="$(sed -n 's/^passed //p' <<<"$results")"
    failed="$(sed -n 's/^failed //p' <<<"$results")"
    skipped="$(grep -c '^skipped ' <<<"$results" || true)"
    TEST_SUMMARY+=("$(printf '%-8s %5d asserted and passed, %d failed, %d skipped' \
        "$1" "$passed" "$failed" "$skipped")")
    if ((skipped > 0)); then
        TEST_SUMMARY+=("$(sed -n 's/^skipped //p' <<<"$results" | sort | uniq -c | sort -rn |
            sed 's/^ *\([0-9]*\) /           \1 skipped: /')")
    fi
    PASSED=$((PASSED + passed))
    FAILED=$((FAILED + failed))
    SKIPPED=$((SKIPPED + skipped))
    ((passed > 0 && failed == 0))
}

# run_tests NAME FOLDER [COMMAND...] -- [OPTION...]: runs the tests of a build folder under the
# command, with these options of ctest, and adds them to the summary
run_tests() {
    local results="$BUILD/log/ctest-$1.xml" folder="$BUILD/$2" name="$1" status=0 runner=(run)
    shift 2
    while [[ "$1" != -- ]]; do
        runner+=("$1")
        shift
    done
    shift
    mkdir -p "$BUILD/log"
    rm -f "$results"
    set_sanitizer_options
    # The reason of a skipped test stands in its output.
    "${runner[@]}" ctest --test-dir "$folder" -j "$JOBS" --no-tests=error \
        --output-on-failure --test-output-size-passed 16384 --output-junit "$results" "$@" ||
        status=1
    count_tests "$name" "$results" || status=1
    return "$status"
}

print_test_summary() {
    if ((${#TEST_SUMMARY[@]} > 0)); then
        printf '%s\n' "${TEST_SUMMARY[@]}"
        printf '%-8s %5d asserted and passed, %d failed, %d skipped\n' \
            total "$PASSED" "$FAILED" "$SKIPPED"
    fi
}
