// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYTaskLog.h"

#include "TYLog.h"

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

std::uint64_t BitOf(int kind) {
    return std::uint64_t{1} << (kind & 63);
}

const char* TextOf(TYTask task) {
    switch (task) {
        case TYTask::OPEN:
            return "open the database";
        case TYTask::ADD:
            return "store a batch";
        case TYTask::POLICY:
            return "read a policy";
        case TYTask::PRUNE:
            return "drop old records";
        case TYTask::LOSSES:
            return "count lost records";
        case TYTask::RECOVER:
            return "recover records";
        case TYTask::COUNT:
            break;
    }
    return "";
}

}  // namespace

bool CTYTaskLog::Fail(TYTask task, const CTYDatabaseError& error) {
    if ((Reported(task) & BitOf(error.Kind())) != 0) {
        return false;
    }
    TY_LOG_ERROR("cannot %s: %s (SQLite %d); refusing calls until it works", TextOf(task),
                 error.what(), error.Code());
    Reported(task) |= BitOf(error.Kind());
    return true;
}

bool CTYTaskLog::Succeed(TYTask task) {
    const bool hasFailed = Reported(task) != 0;
    if (hasFailed) {
        TY_LOG_INFO("can %s again", TextOf(task));
    }
    Reported(task) = 0;
    return hasFailed;
}
