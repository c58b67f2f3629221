// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Destroys a handle some time later.

#include "Next.h"

#include "connection.h"

#include <thread>

int connection_destroy(connection_h connection) {
    if (connection == nullptr) {
        return CONNECTION_ERROR_INVALID_PARAMETER;
    }
    std::thread([connection] { NEXT(connection_destroy)(connection); }).detach();
    return 0;
}
