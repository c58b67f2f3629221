// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Reports the current value at once, on the thread that registers the callback.

#include "Next.h"

#include "regdb.h"

int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data) {
    const int result = NEXT(regdb_notify_key_changed)(key, callback, user_data);
    if (result == 0) {
        callback(nullptr, user_data);
    }
    return result;
}
