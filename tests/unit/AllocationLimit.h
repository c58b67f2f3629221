// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
#define TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H

#include <cstddef>
#include <cstdint>

/// From now on no `new` of this many bytes or more succeeds on this thread, for the rest of the
/// process: for tests that end in it. Not under ThreadSanitizer.
void FailAllocationsFrom(std::size_t bytes);

/// Does the same, but only until it is destroyed.
class CAllocationLimit {
  public:
    explicit CAllocationLimit(std::size_t bytes) { FailAllocationsFrom(bytes); }
    ~CAllocationLimit() { FailAllocationsFrom(SIZE_MAX); }
    CAllocationLimit(const CAllocationLimit&) = delete;
    CAllocationLimit& operator=(const CAllocationLimit&) = delete;
};

#endif  // TALLYRA_TESTS_UNIT_ALLOCATIONLIMIT_H
