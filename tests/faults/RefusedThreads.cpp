// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RefusedThreads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<bool> g_bRefuse{false};

}  // namespace

void RefuseThreads(bool refuse) {
    g_bRefuse = refuse;
}

// In a shared library, before the C library: the library under test calls this one, and so does a
// sanitizer's own.
extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes,
                              void* (*pBody)(void*), void* pData) {
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return g_bRefuse ? EAGAIN : next(pThread, pAttributes, pBody, pData);
}
