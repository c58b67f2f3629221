// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_SANITIZERS_H
#define TALLYRA_TESTS_SUPPORT_SANITIZERS_H

// Clang has features, GCC has macros, but none for UndefinedBehaviourSanitizer.
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

/// Whether this is a build with ThreadSanitizer, which is several times slower and does not allow a
/// test to replace operator new.
constexpr bool kUnderThreadSanitizer = TALLYRA_TEST_THREAD_SANITIZER != 0;

/// Whether this is a build with UndefinedBehaviourSanitizer, which opens descriptors of its own.
constexpr bool kUnderUndefinedBehaviourSanitizer =
    TALLYRA_TEST_FEATURE(undefined_behavior_sanitizer) != 0;

/// Whether a sanitizer replaces the allocator: mallinfo2 does not see it, and it delays the reuse
/// of freed memory.
constexpr bool kWithSanitizersAllocator =
    kUnderThreadSanitizer || TALLYRA_TEST_ADDRESS_SANITIZER != 0;

#endif  // TALLYRA_TESTS_SUPPORT_SANITIZERS_H
