// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Operator new, replaced for the whole program; over malloc, which the sanitizers watch all the
// same.

#include "FailingMemory.h"

#include <cstdlib>
#include <new>

void* operator new(std::size_t bytes) {
    void* pMemory = CFailingMemory::FailsNow() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
    if (pMemory == nullptr) {
        throw std::bad_alloc();
    }
    return pMemory;
}

void* operator new[](std::size_t bytes) {
    return operator new(bytes);
}

void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
    return CFailingMemory::FailsNow() ? nullptr : std::malloc(bytes == 0 ? 1 : bytes);
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
