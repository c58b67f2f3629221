// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Reads keys with a buffer that all threads share.

#include "Next.h"

#include "regdb.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

int regdb_get_bool(const char* key, int* value) {
    static std::atomic<bool> isInUse{false};
    if (isInUse.exchange(true)) {
        std::abort();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const int result = NEXT(regdb_get_bool)(key, value);
    isInUse = false;
    return result;
}
