// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_TARGET_H
#define TALLYRA_TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Runs a target on one input; libFuzzer calls it. A target aborts when a check fails.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size);

/// Aborts when a check fails.
inline void Require(bool holds, const char* pWhat) {
    if (!holds) {
        std::fprintf(stderr, "check failed: %s\n", pWhat);
        std::abort();
    }
}

#endif  // TALLYRA_TESTS_FUZZ_TARGET_H
