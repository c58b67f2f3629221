// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRACEANNOTATION_H
#define TALLYRA_TYRACEANNOTATION_H

// GLib implements its locks with futexes, which ThreadSanitizer cannot see. Where such a lock
// orders two threads, these macros make the happens-before edge visible to TSan: the first thread
// releases, the second acquires. Other builds compile them to nothing.

#if defined(__SANITIZE_THREAD__)
#define TY_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define TY_THREAD_SANITIZER 1
#endif
#endif

#if defined(TY_THREAD_SANITIZER)
extern "C" void __tsan_acquire(void* pAddress);
extern "C" void __tsan_release(void* pAddress);
#define TY_RACE_ACQUIRE(pAddress) __tsan_acquire(pAddress)
#define TY_RACE_RELEASE(pAddress) __tsan_release(pAddress)
#else
#define TY_RACE_ACQUIRE(pAddress) static_cast<void>(pAddress)
#define TY_RACE_RELEASE(pAddress) static_cast<void>(pAddress)
#endif

#endif  // TALLYRA_TYRACEANNOTATION_H
