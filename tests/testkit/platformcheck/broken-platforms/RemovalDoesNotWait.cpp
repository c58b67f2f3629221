// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Returns from the removal while the callback runs.

#include "Next.h"

#include "regdb.h"

#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace {

std::mutex g_mutex;
std::multiset<regdb_key_changed_cb> g_callbacks;

}  // namespace

int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data) {
    const std::lock_guard lock(g_mutex);
    const int result = NEXT(regdb_notify_key_changed)(key, callback, user_data);
    if (result == 0) {
        g_callbacks.insert(callback);
    }
    return result;
}

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    const std::lock_guard lock(g_mutex);
    if (key == nullptr || callback == nullptr) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    if (g_callbacks.erase(callback) == 0) {
        return REGDB_ERROR_NOT_REGISTERED;
    }
    std::thread([text = std::string(key), callback] {
        NEXT(regdb_ignore_key_changed)(text.c_str(), callback);
    }).detach();
    return 0;
}
