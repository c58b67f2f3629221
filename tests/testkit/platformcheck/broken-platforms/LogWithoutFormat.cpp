// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Logs the format in place of the text.

#include "Next.h"

#include "logsvc.h"

#include <cerrno>

int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    return format == nullptr ? -EINVAL : NEXT(logsvc_print)(buffer, priority, tag, "%s", format);
}
