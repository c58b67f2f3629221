// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
#define TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H

#include <cstddef>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TALLYRA_TEST_NEW_IS_TAKEN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TALLYRA_TEST_NEW_IS_TAKEN 1
#endif

/// Whether `new` can be made to fail: ThreadSanitizer keeps the operator to itself.
#if defined(TALLYRA_TEST_NEW_IS_TAKEN)
constexpr bool CAN_FAIL_ALLOCATIONS = false;
#else
constexpr bool CAN_FAIL_ALLOCATIONS = true;
#endif

/// From now on no `new` of this many bytes or more succeeds on this thread, for the rest of the
/// process: for tests that end in it.
void FailAllocationsFrom(std::size_t bytes);

#endif  // TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
