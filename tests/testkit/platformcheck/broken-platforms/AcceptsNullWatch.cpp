// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Removes no callback with success.

#include "Next.h"

#include "regdb.h"

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    if (key != nullptr && callback == nullptr) {
        return REGDB_ERROR_NONE;
    }
    return NEXT(regdb_ignore_key_changed)(key, callback);
}
