// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYASSERT_H
#define TALLYRA_TYASSERT_H

#include <cstdio>
#include <cstdlib>

// Assertions do not depend on NDEBUG. They are compiled into every build type, unless the
// integrator configures with -DTALLYRA_ASSERTIONS=OFF. The code after each TY_ASSERT must therefore
// work when the assertion is compiled out.
#if !defined(TALLYRA_ASSERTIONS)
#define TALLYRA_ASSERTIONS 1
#endif

/// Prints the line that a failed assert() of the C library prints, and aborts.
[[noreturn]] inline void TYAssertFailed(const char* expression, const char* file, int line,
                                        const char* function) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, expression);
    std::abort();
}

#if TALLYRA_ASSERTIONS
#define TY_ASSERT(expression)      \
    (static_cast<bool>(expression) \
         ? static_cast<void>(0)    \
         : TYAssertFailed(#expression, __FILE__, __LINE__, __PRETTY_FUNCTION__))
/// Fails as TY_ASSERT(false) does, but reports a fixed line and function.
#define TY_ASSERT_FALSE_AT(line, function) TYAssertFailed("false", __FILE__, line, function)
#else
#define TY_ASSERT(expression) static_cast<void>(0)
#define TY_ASSERT_FALSE_AT(line, function) static_cast<void>(0)
#endif

#endif  // TALLYRA_TYASSERT_H
