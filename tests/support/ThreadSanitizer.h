// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_THREADSANITIZER_H
#define TALLYRA_TESTS_SUPPORT_THREADSANITIZER_H

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TALLYRA_TEST_THREAD_SANITIZER 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define TALLYRA_TEST_THREAD_SANITIZER 1
#endif

/// Whether all of this runs under ThreadSanitizer, several times slower than it would.
#if defined(TALLYRA_TEST_THREAD_SANITIZER)
constexpr bool UNDER_THREAD_SANITIZER = true;
#else
constexpr bool UNDER_THREAD_SANITIZER = false;
#endif

#endif  // TALLYRA_TESTS_SUPPORT_THREADSANITIZER_H
