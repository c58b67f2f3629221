// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_SANITIZERS_H
#define TALLYRA_TESTS_SUPPORT_SANITIZERS_H

// Clang tells by a feature, GCC by a macro; GCC does not tell of UndefinedBehaviourSanitizer.
#if defined(__has_feature)
#define TALLYRA_TEST_FEATURE(name) __has_feature(name)
#else
#define TALLYRA_TEST_FEATURE(name) 0
#endif

#if TALLYRA_TEST_FEATURE(thread_sanitizer) || defined(__SANITIZE_THREAD__)
#define TALLYRA_TEST_THREAD_SANITIZER 1
#else
#define TALLYRA_TEST_THREAD_SANITIZER 0
#endif

#if TALLYRA_TEST_FEATURE(address_sanitizer) || defined(__SANITIZE_ADDRESS__)
#define TALLYRA_TEST_ADDRESS_SANITIZER 1
#else
#define TALLYRA_TEST_ADDRESS_SANITIZER 0
#endif

/// Whether all of this runs under ThreadSanitizer: several times slower than it would, and without
/// an operator new that a test could replace.
constexpr bool kUnderThreadSanitizer = TALLYRA_TEST_THREAD_SANITIZER != 0;

/// Whether it runs under UndefinedBehaviourSanitizer, which opens descriptors of its own.
constexpr bool kUnderUndefinedBehaviourSanitizer =
    TALLYRA_TEST_FEATURE(undefined_behavior_sanitizer) != 0;

/// Whether it has the allocator of a sanitizer, which nobody can ask and which keeps for a while
/// what was freed.
constexpr bool kWithSanitizersAllocator =
    kUnderThreadSanitizer || TALLYRA_TEST_ADDRESS_SANITIZER != 0;

#endif  // TALLYRA_TESTS_SUPPORT_SANITIZERS_H
