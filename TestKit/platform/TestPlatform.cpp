// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TestPlatform.h"

#include "Environment.h"
#include "PerProcess.h"
#include "PlatformHeaders.h"

#include <algorithm>
#include <utility>

namespace {

/// @return the position in kFunctions; its size if there is no such function
std::size_t IndexOf(std::string_view function) {
    return static_cast<std::size_t>(std::ranges::find(kFunctions, function) - kFunctions.begin());
}

}  // namespace

CTestPlatform::CTestPlatform() : m_Initial(InitialAnswers()), m_pLogFile(OpenLogFile()) {}

CTestPlatform& CTestPlatform::Instance() {
    static CPerProcess<CTestPlatform> platform;
    return platform.Get();
}

void CTestPlatform::Reset() {
    Answers initial = m_Initial;
    {
        const std::lock_guard lock(m_Mutex);
        std::swap(m_Answers, initial);
        m_Calls.fill(0);
        m_Log.clear();
    }
    m_Settings.Clear();
    m_Monitors.Clear();
}

int CTestPlatform::Begin(std::string_view function) {
    const std::lock_guard lock(m_Mutex);
    const std::size_t index = IndexOf(function);
    ++m_Calls.at(index);
    Failure& failure = m_Answers.failures.at(index);
    if (failure.nth > 1) {
        --failure.nth;
        return 0;
    }
    return failure.nth == 1 ? std::exchange(failure, {}).error : failure.error;
}

bool CTestPlatform::Fail(std::string_view function, Failure failure) {
    const std::size_t index = IndexOf(function);
    if (index == kFunctions.size()) {
        return false;
    }
    const std::lock_guard lock(m_Mutex);
    m_Answers.failures.at(index) = failure.error == 0 ? Failure{} : failure;
    return true;
}

long CTestPlatform::Calls(std::string_view function) {
    const std::size_t index = IndexOf(function);
    const std::lock_guard lock(m_Mutex);
    return index == kFunctions.size() ? -1 : m_Calls.at(index);
}

void CTestPlatform::SetKey(const std::string& key, std::optional<int> value) {
    const std::lock_guard lock(m_Mutex);
    bool changed = false;
    if (value) {
        const auto [entry, added] = m_Answers.keys.try_emplace(key, *value);
        changed = std::exchange(entry->second, *value) != *value || added;
    } else {
        changed = m_Answers.keys.erase(key) > 0;
    }
    if (changed) {
        m_Settings.Report(key, {});
    }
}

std::optional<int> CTestPlatform::Key(const std::string& key) {
    const std::lock_guard lock(m_Mutex);
    const auto found = m_Answers.keys.find(key);
    return found == m_Answers.keys.end() ? std::nullopt : std::optional(found->second);
}

void CTestPlatform::SetNetwork(int type) {
    const std::lock_guard lock(m_Mutex);
    m_Answers.network = type;
    m_Answers.gateway = type != CONNECTION_TYPE_DISCONNECTED;
    m_Monitors.Report(
        "",
        {m_Answers.gateway ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NO_CONNECTION, "GATEWAY"});
}

void CTestPlatform::SetGateway(bool connected) {
    const std::lock_guard lock(m_Mutex);
    m_Answers.gateway = connected;
}

int CTestPlatform::Network() {
    const std::lock_guard lock(m_Mutex);
    return m_Answers.network;
}

bool CTestPlatform::Gateway() {
    const std::lock_guard lock(m_Mutex);
    return m_Answers.gateway;
}

void CTestPlatform::SetRssi(int dbm) {
    const std::lock_guard lock(m_Mutex);
    m_Answers.rssi = dbm;
}

int CTestPlatform::Rssi() {
    const std::lock_guard lock(m_Mutex);
    return m_Answers.rssi;
}

void CTestPlatform::SetVersion(const std::string& app, std::optional<std::string> version) {
    const std::lock_guard lock(m_Mutex);
    (app.empty() ? m_Answers.otherVersion : m_Answers.versions[app]) = std::move(version);
}

std::optional<std::string> CTestPlatform::Version(const std::string& app) {
    const std::lock_guard lock(m_Mutex);
    const auto found = m_Answers.versions.find(app);
    return found == m_Answers.versions.end() ? m_Answers.otherVersion : found->second;
}

void CTestPlatform::Keep(LogLine line) {
    if (m_pLogFile != nullptr) {
        WriteLine(m_pLogFile, line);
    }
    const std::lock_guard lock(m_Mutex);
    m_Log.push_back(std::move(line));
    m_Logged.notify_all();
}

std::size_t CTestPlatform::Lines() {
    const std::lock_guard lock(m_Mutex);
    return m_Log.size();
}

const LogLine* CTestPlatform::Line(std::size_t index) {
    const std::lock_guard lock(m_Mutex);
    return index < m_Log.size() ? &m_Log[index] : nullptr;
}

std::optional<std::size_t> CTestPlatform::AwaitLine(std::string_view part, std::size_t first,
                                                    std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    const auto found = [&] {
        for (; first < m_Log.size(); ++first) {
            if (m_Log[first].text.find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    };
    return m_Logged.wait_for(lock, time, found) ? std::optional(first) : std::nullopt;
}
