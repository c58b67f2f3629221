// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TESTKIT_NEXT_H
#define TALLYRA_TESTS_TESTKIT_NEXT_H

#include <dlfcn.h>

/// @return the function of this name in the Linux platform, which the broken one stands before
#define NEXT(function) reinterpret_cast<decltype(&(function))>(dlsym(RTLD_NEXT, #function))

#endif  // TALLYRA_TESTS_TESTKIT_NEXT_H
