// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Delivers a change that was queued before the removal.

#include "Next.h"

#include "regdb.h"

#include <chrono>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace {

std::mutex g_mutex;
std::map<regdb_key_changed_cb, void*> g_data;

}  // namespace

int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data) {
    const std::lock_guard lock(g_mutex);
    g_data[callback] = user_data;
    return NEXT(regdb_notify_key_changed)(key, callback, user_data);
}

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    const int result = NEXT(regdb_ignore_key_changed)(key, callback);
    if (result == 0 && std::string(key) == "db/tallyra/log_on") {
        const std::lock_guard lock(g_mutex);
        std::thread([callback, pData = g_data[callback]] {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            callback(nullptr, pData);
        }).detach();
    }
    return result;
}
