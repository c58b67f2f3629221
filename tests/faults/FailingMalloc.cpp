// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The C library's allocations, put before its own for the whole process: those of operator new, of
// libdbus and of GLib all come through here. What was got is freed by the C library as ever.

#include "FailingMemory.h"

#include <cerrno>
#include <cstddef>

extern "C" {

void* __libc_malloc(std::size_t bytes);                    // NOLINT(bugprone-reserved-identifier)
void* __libc_calloc(std::size_t count, std::size_t size);  // NOLINT(bugprone-reserved-identifier)
void* __libc_realloc(void* pMemory, std::size_t bytes);    // NOLINT(bugprone-reserved-identifier)

void* malloc(std::size_t bytes) {
    if (CFailingMemory::FailsNow()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_malloc(bytes);
}

void* calloc(std::size_t count, std::size_t size) {
    if (CFailingMemory::FailsNow()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}

void* realloc(void* pMemory, std::size_t bytes) {
    if (CFailingMemory::FailsNow()) {
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_realloc(pMemory, bytes);
}

}  // extern "C"
