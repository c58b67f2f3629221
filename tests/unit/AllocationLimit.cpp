// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "AllocationLimit.h"

#include "Sanitizers.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t g_nLimit = SIZE_MAX;

}  // namespace

void FailAllocationsFrom(std::size_t bytes) {
    g_nLimit = bytes;
}

#if !TALLYRA_TEST_THREAD_SANITIZER

// Replaced for the whole program; over malloc, which the sanitizers watch all the same.
void* operator new(std::size_t bytes) {
    void* pMemory = bytes < g_nLimit ? std::malloc(bytes == 0 ? 1 : bytes) : nullptr;
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

// AddressSanitizer's own does not go through the one above.
void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}

void operator delete[](void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}

#endif
