// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "doubles/PlatformDouble.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <thread>

namespace {

constexpr std::size_t kMaxRegistrations = 64;

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
    m_Asked = {};
    m_Watchers.clear();
    m_Monitors.clear();
}

void CPlatformDouble::StopAllocating(void (*pOnLine)(const char* line)) {
    keep = false;
    m_Watchers.reserve(kMaxRegistrations);
    m_Monitors.reserve(kMaxRegistrations);
    m_pOnLine = pOnLine;
}

void CPlatformDouble::ChangeKey(int value) {
    keyValue = value;
    FireKeyChanged();
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

void CPlatformDouble::FireKeyChangedWithoutData() {
    for (const Watcher& watcher : Copy(m_Watchers)) {
        watcher.callback(nullptr, nullptr);
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

std::size_t CPlatformDouble::Calls(const std::string& name) {
    return static_cast<std::size_t>(std::ranges::count(Journal(), name));
}

std::size_t CPlatformDouble::CountLog(int priority, const std::string& tag,
                                      const std::string& text) {
    return static_cast<std::size_t>(std::ranges::count_if(Log(), [&](const LogLine& line) {
        return line.priority == priority && line.tag == tag && line.text == text;
    }));
}

std::size_t CPlatformDouble::CountLog(const std::string& text) {
    return static_cast<std::size_t>(std::ranges::count(Log(), text, &LogLine::text));
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

void CPlatformDouble::NoteApp(const char* appId, uid_t uid) {
    const std::lock_guard lock(m_Mutex);
    if (keep) {
        m_Asked.appId = appId;
        m_Asked.uid = uid;
    }
}

void CPlatformDouble::NotePackage(const char* pkgId) {
    const std::lock_guard lock(m_Mutex);
    if (keep) {
        m_Asked.pkgId = pkgId;
    }
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

void CPlatformDouble::AddWatcher(const Watcher& watcher) {
    const std::lock_guard lock(m_Mutex);
    m_Watchers.push_back(watcher);
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

void CPlatformDouble::AddMonitor(const Monitor& monitor) {
    const std::lock_guard lock(m_Mutex);
    m_Monitors.push_back(monitor);
}

void CPlatformDouble::RemoveMonitor(connection_h handle) {
    const std::lock_guard callbacks(m_NetworkMutex);
    const std::lock_guard lock(m_Mutex);
    std::erase_if(m_Monitors, [&](const Monitor& other) { return other.handle == handle; });
}
