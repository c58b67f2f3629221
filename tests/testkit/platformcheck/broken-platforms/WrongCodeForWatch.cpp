// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Calls every key malformed that nobody watches.

#include "Next.h"

#include "regdb.h"

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    const int result = NEXT(regdb_ignore_key_changed)(key, callback);
    return result == REGDB_ERROR_NOT_REGISTERED ? REGDB_ERROR_INVALID_PARAMETER : result;
}
