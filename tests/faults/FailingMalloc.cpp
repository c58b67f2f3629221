// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Replaces the C library's allocation functions for the whole process. operator new, libdbus and
// GLib all end up here. free remains the C library's.

#include "FailingMemory.h"

#include <cerrno>
#include <cstddef>

namespace {

bool Fails() {
    const bool fails = CFailingMemory::FailsNow();
    errno = fails ? ENOMEM : errno;
    return fails;
}

}  // namespace

extern "C" {

void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pMemory, std::size_t bytes);

void* malloc(std::size_t bytes) {
    return Fails() ? nullptr : __libc_malloc(bytes);
}

void* calloc(std::size_t count, std::size_t size) {
    return Fails() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* pMemory, std::size_t bytes) {
    return Fails() ? nullptr : __libc_realloc(pMemory, bytes);
}

}  // extern "C"
