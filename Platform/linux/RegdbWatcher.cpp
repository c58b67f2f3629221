// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RegdbWatcher.h"

#include "PerProcess.h"

#include <algorithm>
#include <new>

/// The key that a callback is told about.
struct _keynode_t {  // NOLINT(bugprone-reserved-identifier): the name is the platform's
    std::string key;
};

CRegdbWatcher& CRegdbWatcher::Instance() {
    return PerProcess<CRegdbWatcher>();
}

int CRegdbWatcher::Add(const std::string& key, regdb_key_changed_cb pCallback, void* pUserData) {
    if (pCallback == nullptr || !CRegdbStore::Split(key)) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    // A callback that registers runs on a thread that is there already. Anybody else keeps it from
    // being ended until the registration is there.
    std::unique_lock control(m_ControlMutex, std::defer_lock);
    if (!m_Thread.RunsHere()) {
        control.lock();
        if (!Start()) {
            return REGDB_ERROR_SYSTEM;
        }
    }
    auto registration = std::make_shared<Registration>();
    // Read under the mutex: a change behind it finds the registration in the list.
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

// Watches before the first registration reads its key, so that no change falls between the two.
// Registrations that are there already were made while the last thread ended: they are looked at.
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

// Somebody may have registered again in the meantime, and a callback may do so until the thread
// has ended.
void CRegdbWatcher::Stop() {
    if (HasRegistrations()) {
        return;
    }
    if (!m_Thread.IsStarted()) {
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
            m_bWatching = Look();
        }
    }
}

// Looks after the watch was set, so that no change falls between the two.
// @return whether there is nothing more to see before the watch tells
bool CRegdbWatcher::Look() {
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

// @return whether the system let the file be read
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

// @return whether there is a change to tell
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
