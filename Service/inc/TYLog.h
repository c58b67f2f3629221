// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYLOG_H
#define TALLYRA_TYLOG_H

#include "TYAssert.h"

#include "logsvc.h"

// Each source chooses its tag: #define TY_LOG_TAG TY_TAG, or TY_TAG_UTIL.
#define TY_TAG "TALLYRA"
#define TY_TAG_UTIL "TALLYRA_UTIL"

#define TY_LOG_AT(priority, function, line, format, ...)                                      \
    static_cast<void>(logsvc_print(LOGSVC_MAIN, priority, TY_LOG_TAG, "%s: %s(%d) > " format, \
                                   __FILE_NAME__, function, line __VA_OPT__(, ) __VA_ARGS__))

#define TY_LOG_DEBUG(...) TY_LOG_AT(LOGSVC_DEBUG, __func__, __LINE__, __VA_ARGS__)
#define TY_LOG_INFO(...) TY_LOG_AT(LOGSVC_INFO, __func__, __LINE__, __VA_ARGS__)
#define TY_LOG_ERROR(...) TY_LOG_AT(LOGSVC_ERROR, __func__, __LINE__, __VA_ARGS__)

// Lines of the service link carry a fixed function and line number, because field tooling matches
// them. Only the service link uses these three.
#define TY_LOG_DEBUG_AT(function, line, ...) TY_LOG_AT(LOGSVC_DEBUG, function, line, __VA_ARGS__)
#define TY_LOG_INFO_AT(function, line, ...) TY_LOG_AT(LOGSVC_INFO, function, line, __VA_ARGS__)
#define TY_LOG_ERROR_AT(function, line, ...) TY_LOG_AT(LOGSVC_ERROR, function, line, __VA_ARGS__)

/// Reports an allocation failure: logs it, then fails an assertion.
#define TY_BAD_ALLOC(exception)                                                    \
    do {                                                                           \
        TY_LOG_ERROR("bad_alloc!! No more free store space available. error : %s", \
                     (exception).what());                                          \
        TY_ASSERT(false);                                                          \
    } while (false)

#endif  // TALLYRA_TYLOG_H
