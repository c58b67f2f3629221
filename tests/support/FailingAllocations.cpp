// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FailingAllocations.h"

#include "Sanitizers.h"

#include <cstdint>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t g_nAllocationLimit = SIZE_MAX;

}  // namespace

void FailAllocationsFrom(std::size_t bytes) {
    g_nAllocationLimit = bytes;
}

#if !TALLYRA_TEST_THREAD_SANITIZER

// Replaces the operators of the whole program. They call malloc, which the sanitizers watch.
void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return bytes < g_nAllocationLimit ? std::malloc(bytes == 0 ? 1 : bytes) : nullptr;
}

void* operator new(std::size_t bytes) {
    void* pMemory = operator new(bytes, std::nothrow);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

// AddressSanitizer's own do not call those above.
void* operator new[](std::size_t bytes, const std::nothrow_t& tag) noexcept {
    return operator new(bytes, tag);
}

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
