// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Replaces operator new for the whole program. It calls malloc, so the sanitizers still see every
// allocation.

#include "FailingMemory.h"

#include <cstdlib>
#include <new>

void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return CFailingMemory::FailsNow() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
}

void* operator new(std::size_t bytes) {
    void* pMemory = operator new(bytes, std::nothrow);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}

void operator delete(void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory) noexcept {
    std::free(pMemory);
}

void operator delete(void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}

void operator delete[](void* pMemory, std::size_t /*bytes*/) noexcept {
    std::free(pMemory);
}
