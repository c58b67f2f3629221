// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
#define TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H

#include <cstddef>

/// From now on no `new` of this many bytes or more succeeds on this thread, for the rest of the
/// process: for tests that end in it. Not under ThreadSanitizer.
void FailAllocationsFrom(std::size_t bytes);

#endif  // TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
