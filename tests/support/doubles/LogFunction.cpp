// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform's log, answered by the platform double. Apart from the other functions, so that a
// program can have this log and the Linux platform for the rest.

#include "doubles/PlatformDouble.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

/// Splits "file: function(line) > text".
PlatformLogLine Parse(int buffer, int priority, const char* tag, const std::string& message) {
    const std::size_t fileEnd = message.find(": ");
    const std::size_t siteEnd = message.find(") > ");
    const std::size_t lineStart = message.rfind('(', siteEnd);
    if (siteEnd == std::string::npos || lineStart == std::string::npos) {
        return {priority, tag, "", "", 0, message, buffer};
    }
    return {priority,
            tag,
            message.substr(0, fileEnd),
            message.substr(fileEnd + 2, lineStart - fileEnd - 2),
            std::atoi(message.c_str() + lineStart + 1),
            message.substr(siteEnd + 4),
            buffer};
}

// Formats twice instead of into a buffer for the longest line, which attacks make 5 MiB long.
LOGSVC_PRINTF(2, 0)
std::string Format(std::size_t longest, const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(std::min(static_cast<std::size_t>(std::max(length, 0)), longest), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    return text;
}

LOGSVC_PRINTF(4, 0)
int Keep(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    CPlatformDouble& platform = CPlatformDouble::Instance();
    platform.KeepLog(Parse(buffer, priority, tag, Format(platform.longestLine, format, arguments)));
    return platform.failing == "logsvc_print" ? -1 : 0;
}

LOGSVC_PRINTF(3, 0)
int WriteWithoutAllocating(int priority, const char* tag, const char* format, va_list arguments) {
    std::array<char, 1024> line;
    int length = std::snprintf(line.data(), line.size(), "%d %s ", priority, tag);
    length += std::vsnprintf(line.data() + length,
                             line.size() - 1 - static_cast<std::size_t>(length), format, arguments);
    auto end = std::min(static_cast<std::size_t>(length), line.size() - 2);
    line[end] = '\n';
    const ssize_t written = write(STDERR_FILENO, line.data(), end + 1);
    line[end] = '\0';
    CPlatformDouble::Instance().WriteLog(line.data());
    return written < 0 ? -1 : 0;
}

}  // namespace

extern "C" int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    const CPlatformDouble& platform = CPlatformDouble::Instance();
    if (platform.mute.load(std::memory_order_relaxed)) {
        return 0;
    }
    va_list arguments;
    va_start(arguments, format);
    const int result = platform.Allocates()
                           ? Keep(buffer, priority, tag, format, arguments)
                           : WriteWithoutAllocating(priority, tag, format, arguments);
    va_end(arguments);
    return result;
}
