// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform double and the platform's log. The other functions are apart, so that a program can
// have this log and the Linux platform for the rest.

#include "doubles/PlatformDouble.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace {

constexpr std::size_t kMaxRegistrations = 64;

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

CPlatformDouble& CPlatformDouble::Instance() {
    static auto* const pInstance = new CPlatformDouble;
    return *pInstance;
}

void CPlatformDouble::Reset() {
    static_cast<PlatformAnswers&>(*this) = {};
    keyValue = 1;
    mute = false;
    const std::lock_guard lock(m_Mutex);
    m_Log.clear();
    m_Journal.clear();
    m_Watchers.clear();
    m_Monitors.clear();
}

void CPlatformDouble::StopAllocating(void (*pOnLine)(const char* line)) {
    keep = false;
    m_Watchers.reserve(kMaxRegistrations);
    m_Monitors.reserve(kMaxRegistrations);
    m_pOnLine = pOnLine;
}

void CPlatformDouble::FireKeyChanged() {
    if (Allocates()) {
        std::thread([this] { CallWatchers(); }).join();
    } else {
        CallWatchers();
    }
}

// Works on a copy, because a callback may add or remove registrations. The copy is on the stack,
// for a platform that does not allocate.
void CPlatformDouble::CallWatchers() noexcept {
    const std::lock_guard callbacks(m_CallbackMutex);
    std::array<Watcher, kMaxRegistrations> watchers;
    std::size_t count = 0;
    {
        const std::lock_guard lock(m_Mutex);
        count = m_Watchers.size();
        std::copy_n(m_Watchers.begin(), std::min(count, watchers.size()), watchers.begin());
    }
    for (std::size_t i = 0; i < count; ++i) {
        const Watcher& watcher = watchers.at(i);
        watcher.callback(nullptr, watcher.data);
    }
}

void CPlatformDouble::FireNetwork(int result, const char* name) {
    std::thread([this, result, name] {
        const std::lock_guard callbacks(m_NetworkMutex);
        for (const Monitor& monitor : Copy(m_Monitors)) {
            std::string text(name);
            monitor.callback(static_cast<connection_error_e>(result), text.data(), monitor.data);
        }
    }).join();
}

std::size_t CPlatformDouble::CountLog(int priority, const std::string& tag,
                                      const std::string& text) {
    return static_cast<std::size_t>(std::ranges::count_if(Log(), [&](const LogLine& line) {
        return line.priority == priority && line.tag == tag && line.text == text;
    }));
}

bool CPlatformDouble::WaitForLog(const std::string& text, std::size_t count,
                                 std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    return m_Logged.wait_for(lock, time, [&] {
        return count <= static_cast<std::size_t>(std::ranges::count(m_Log, text, &LogLine::text));
    });
}

int CPlatformDouble::Begin(const char* name, int result) {
    if (onCall) {
        onCall(name);
    }
    const std::lock_guard lock(m_Mutex);
    if (keep) {
        m_Journal.emplace_back(name);
    }
    return failing == name ? -1 : result;
}

void CPlatformDouble::KeepLog(LogLine line) {
    if (onLog) {
        onLog(line);
    }
    const std::lock_guard lock(m_Mutex);
    if (echo) {
        std::fprintf(stderr, "%d %s %s\n", line.priority, line.tag.c_str(), line.text.c_str());
    }
    if (keep) {
        m_Log.push_back(std::move(line));
    }
    m_Logged.notify_all();
}

int CPlatformDouble::RemoveWatcher(const Watcher& watcher) {
    const std::lock_guard callbacks(m_CallbackMutex);
    const std::lock_guard lock(m_Mutex);
    const auto matches = [&](const Watcher& other) { return other.callback == watcher.callback; };
    const auto first = std::find_if(m_Watchers.begin(), m_Watchers.end(), matches);
    if (first == m_Watchers.end()) {
        return -1;
    }
    if (ignore == Ignore::OLDEST) {
        m_Watchers.erase(first);
    } else {
        std::erase_if(m_Watchers, matches);
    }
    return 0;
}

void CPlatformDouble::RemoveMonitor(connection_h handle) {
    const std::lock_guard callbacks(m_NetworkMutex);
    const std::lock_guard lock(m_Mutex);
    std::erase_if(m_Monitors, [&](const Monitor& other) { return other.handle == handle; });
}

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
