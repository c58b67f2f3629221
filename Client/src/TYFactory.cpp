// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataCollector.h"
#include "TYHostCall.h"
#include "TYLog.h"

#include <new>

#define TY_LOG_TAG TY_TAG

ITYDataCollector* GetTYDataCollectorInstance(const char* appId, TY_PLAYER_ID playerId) {
    const CTYHostCall hostCall;
    try {
        return new CTYDataCollector(appId, playerId);
    } catch (const std::bad_alloc& error) {
        TY_LOG_ERROR("bad_alloc!! Nomore free store space available. error : %s", error.what());
        TY_ASSERT(false);
        return nullptr;
    }
}
