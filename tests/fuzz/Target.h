// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_TARGET_H
#define TALLYRA_TESTS_FUZZ_TARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Feeds a target with bytes, as libFuzzer does. A target that finds something wrong ends the
/// process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size);

/// Ends the process where something that has to hold does not.
inline void Require(bool holds, const char* pWhat) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", pWhat);
        std::abort();
    }
}

#endif  // TALLYRA_TESTS_FUZZ_TARGET_H
