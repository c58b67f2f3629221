// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Fails for a key that does not exist, but sets the value to 0.

#include "Next.h"

#include "regdb.h"

int regdb_get_bool(const char* key, int* value) {
    const int result = NEXT(regdb_get_bool)(key, value);
    if (result == REGDB_ERROR_NO_KEY) {
        *value = 0;
    }
    return result;
}
