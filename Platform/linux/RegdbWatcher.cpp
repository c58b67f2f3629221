// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RegdbWatcher.h"

#include "PerProcess.h"

#include <algorithm>
#include <new>

/// The key that is passed to a callback.
struct _keynode_t {
    std::string key;
};

CRegdbWatcher& CRegdbWatcher::Instance() {
    static CPerProcess<CRegdbWatcher> watcher;
    return watcher.Get();
}

int CRegdbWatcher::Add(const std::string& key, regdb_key_changed_cb pCallback, void* pUserData) {
    if (pCallback == nullptr || !CRegdbStore::Split(key)) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    // Inside a callback the thread runs already. Any other caller holds the control mutex, so that
    // Stop cannot end the thread before the registration is in the list.
    std::unique_lock control(m_ControlMutex, std::defer_lock);
    if (!m_Thread.RunsHere()) {
        control.lock();
        if (!Start()) {
            return REGDB_ERROR_SYSTEM;
        }
    }
    auto registration = std::make_shared<Registration>();
    // Read under the mutex, so that the thread sees the registration for any later change.
    const std::lock_guard lock(m_Mutex);
    *registration = {key, pCallback, pUserData, m_Store->Text(key)};
    m_Registrations.push_back(std::move(registration));
    return REGDB_ERROR_NONE;
}

int CRegdbWatcher::Remove(const std::string& key, regdb_key_changed_cb pCallback) {
    bool found = false;
    bool last = false;
    {
        std::unique_lock lock(m_Mutex);
        Registrations gone;
        for (const auto& registration : m_Registrations) {
            if (registration->key == key && registration->pCallback == pCallback) {
                registration->removed = true;
                gone.push_back(registration);
            }
        }
        std::erase_if(m_Registrations, [](const auto& other) { return other->removed; });
        found = !gone.empty();
        last = m_Registrations.empty();
        if (!m_Thread.RunsHere()) {
            m_Returned.wait(lock, [&] {
                return m_pRunning == nullptr || m_pRunning->key != key ||
                       m_pRunning->pCallback != pCallback;
            });
        }
    }
    if (last && !m_Thread.RunsHere()) {
        const std::lock_guard control(m_ControlMutex);
        Stop();
    }
    return found ? REGDB_ERROR_NONE : REGDB_ERROR_NOT_REGISTERED;
}

// The watch is set before the registration reads its key, so no change is lost between the two.
// Existing registrations were added by a callback while the previous thread ended. Then m_bWatching
// is false and the new thread checks the file once.
bool CRegdbWatcher::Start() {
    if (m_Thread.IsStarted()) {
        return true;
    }
    m_Store.emplace();
    if (!m_Watch || !m_Watch->IsFor(m_Store->Path())) {
        m_Watch.emplace(m_Store->Path());
    }
    m_bWatching = m_Watch->Open() && !HasRegistrations();
    return m_Thread.Start([](void* pThis) { static_cast<CRegdbWatcher*>(pThis)->Run(); }, this);
}

bool CRegdbWatcher::HasRegistrations() {
    const std::lock_guard lock(m_Mutex);
    return !m_Registrations.empty();
}

// Another caller may have registered since the last removal, and a callback may register until the
// thread has ended.
void CRegdbWatcher::Stop() {
    if (HasRegistrations() || !m_Thread.IsStarted()) {
        return;
    }
    m_Thread.RequestStop();
    m_Thread.Join();
    m_Watch->Unwatch();
    if (HasRegistrations()) {
        Start();
    }
}

void CRegdbWatcher::Run() {
    while (!m_Thread.IsStopping()) {
        if (!m_bWatching || !m_Watch->Await(m_Thread)) {
            m_Thread.Pause();
        }
        if (!m_Thread.IsStopping()) {
            m_bWatching = CheckFile();
        }
    }
}

// The watch is set before the file is read, so no change is lost between the two.
// @return whether the watch will report the next change; if false, the caller retries
bool CRegdbWatcher::CheckFile() {
    try {
        const bool watching = m_Watch->Open();
        return CheckAll() && watching;
    } catch (const std::exception&) {
        return false;
    }
}

bool CRegdbWatcher::CheckAll() {
    Registrations registrations;
    {
        const std::lock_guard lock(m_Mutex);
        registrations = m_Registrations;
    }
    bool checked = true;
    for (const auto& registration : registrations) {
        checked = Check(*registration) && checked;
    }
    return checked;
}

// @return false when the system refused to open the file
bool CRegdbWatcher::Check(Registration& registration) {
    std::string text;
    const int result = m_Store->ReadText(registration.key, &text);
    if (result == REGDB_ERROR_SYSTEM) {
        return false;
    }
    _keynode_t node{registration.key};
    if (TakeChange(registration,
                   result == REGDB_ERROR_NONE ? std::optional(std::move(text)) : std::nullopt)) {
        Call(registration, node);
    }
    return true;
}

// @return whether the callback has to be called
bool CRegdbWatcher::TakeChange(Registration& registration, std::optional<std::string> text) {
    const std::lock_guard lock(m_Mutex);
    if (registration.removed || registration.text == text) {
        return false;
    }
    registration.text = std::move(text);
    m_pRunning = &registration;
    return true;
}

void CRegdbWatcher::Call(const Registration& registration, _keynode_t& node) noexcept {
    registration.pCallback(&node, registration.pUserData);
    const std::lock_guard lock(m_Mutex);
    m_pRunning = nullptr;
    m_Returned.notify_all();
}
