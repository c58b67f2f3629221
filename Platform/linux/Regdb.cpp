// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RegdbStore.h"
#include "RegdbWatcher.h"

#include "regdb.h"

#include <exception>
#include <new>

namespace {

/// Turns exceptions into error codes: the caller is C.
template <class Function>
int Guarded(Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return REGDB_ERROR_OUT_OF_MEMORY;
    } catch (const std::exception&) {
        return REGDB_ERROR_SYSTEM;
    }
}

}  // namespace

int regdb_get_bool(const char* key, int* value) {
    if (key == nullptr || value == nullptr) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    return Guarded([&] { return CRegdbStore().Read(key, value); });
}

int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data) {
    if (key == nullptr) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    return Guarded([&] { return CRegdbWatcher::Instance().Add(key, callback, user_data); });
}

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    if (key == nullptr || callback == nullptr) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    return Guarded([&] { return CRegdbWatcher::Instance().Remove(key, callback); });
}
