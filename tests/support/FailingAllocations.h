// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_FAILINGALLOCATIONS_H
#define TALLYRA_TESTS_SUPPORT_FAILINGALLOCATIONS_H

#include <cstddef>

/// Fails every `new` of this many bytes or more on this thread, until the next call. Has no effect
/// under ThreadSanitizer.
void FailAllocationsFrom(std::size_t bytes);

#endif  // TALLYRA_TESTS_SUPPORT_FAILINGALLOCATIONS_H
