// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Trusts that every caller wants the type.

#include "Next.h"

#include "connection.h"

#include <csignal>

int connection_get_type(connection_h connection, int* type) {
    if (connection != nullptr && type == nullptr) {
        raise(SIGSEGV);
    }
    return NEXT(connection_get_type)(connection, type);
}
