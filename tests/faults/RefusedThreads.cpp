// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

static std::atomic<bool> g_bRefuse{false};

void RefuseThreads(bool refuse) {
    g_bRefuse = refuse;
}

// Linked before the C library, as a shared library, so that the library under test and a
// sanitizer's pthread_create call this one.
extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes,
                              void* (*pBody)(void*), void* pData) {
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return g_bRefuse ? EAGAIN : next(pThread, pAttributes, pBody, pData);
}
