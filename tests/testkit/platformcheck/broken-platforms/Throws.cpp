// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Throws from a function of C.

#include "Next.h"

#include "regdb.h"

#include <stdexcept>

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    const int result = NEXT(regdb_ignore_key_changed)(key, callback);
    if (result == REGDB_ERROR_NOT_REGISTERED) {
        throw std::out_of_range("no such callback");
    }
    return result;
}
