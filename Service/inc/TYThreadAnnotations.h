// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTHREADANNOTATIONS_H
#define TALLYRA_TYTHREADANNOTATIONS_H

// Macros for Clang's thread-safety attributes. Clang builds check them; GCC builds ignore them.
#if defined(__clang__)
#define TY_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define TY_THREAD_ATTRIBUTE(x)
#endif

#define TY_CAPABILITY(name) TY_THREAD_ATTRIBUTE(capability(name))
#define TY_SCOPED_CAPABILITY TY_THREAD_ATTRIBUTE(scoped_lockable)
#define TY_GUARDED_BY(mutex) TY_THREAD_ATTRIBUTE(guarded_by(mutex))
#define TY_REQUIRES(...) TY_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define TY_ACQUIRE(...) TY_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TY_RELEASE(...) TY_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define TY_EXCLUDES(...) TY_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define TY_NO_THREAD_SAFETY_ANALYSIS TY_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // TALLYRA_TYTHREADANNOTATIONS_H
