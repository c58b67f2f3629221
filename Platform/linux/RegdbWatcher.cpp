// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RegdbWatcher.h"

#include "SignalsBlocked.h"

#include <algorithm>
#include <new>
#include <system_error>

/// The key that a callback is told about.
struct _keynode_t {  // NOLINT(bugprone-reserved-identifier): the name is the platform's
    std::string key;
};

namespace {

thread_local bool t_bWatcherThread = false;

}  // namespace

// Never destroyed: a process may exit while a key is watched, and the thread with it.
CRegdbWatcher& CRegdbWatcher::Instance() {
    alignas(CRegdbWatcher) static unsigned char storage[sizeof(CRegdbWatcher)];
    static CRegdbWatcher* const pInstance = new (storage) CRegdbWatcher;
    return *pInstance;
}

bool CRegdbWatcher::OnWatcherThread() {
    return t_bWatcherThread;
}

int CRegdbWatcher::Add(const std::string& key, regdb_key_changed_cb pCallback, void* pUserData) {
    if (pCallback == nullptr || !CRegdbStore::Split(key)) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    // A callback that registers runs on a thread that is there already. Anybody else keeps it from
    // being ended until the registration is there.
    std::unique_lock control(m_ControlMutex, std::defer_lock);
    if (!OnWatcherThread()) {
        control.lock();
        if (!Start()) {
            return REGDB_ERROR_SYSTEM;
        }
    }
    auto registration = std::make_shared<Registration>();
    *registration = {key, pCallback, pUserData, m_Store->Text(key)};
    const std::lock_guard lock(m_Mutex);
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
        if (!OnWatcherThread()) {
            m_Returned.wait(lock, [&] {
                return m_pRunning == nullptr || m_pRunning->key != key ||
                       m_pRunning->pCallback != pCallback;
            });
        }
    }
    if (last && !OnWatcherThread()) {
        const std::lock_guard control(m_ControlMutex);
        Stop();
    }
    return found ? REGDB_ERROR_NONE : REGDB_ERROR_NOT_REGISTERED;
}

// The monitor belongs to the context that is the thread's own when it is made.
bool CRegdbWatcher::Start() {
    if (m_Thread.joinable()) {
        return true;
    }
    m_Store.emplace();
    m_pContext.reset(g_main_context_new());
    m_pLoop.reset(g_main_loop_new(m_pContext.get(), FALSE));
    g_main_context_push_thread_default(m_pContext.get());
    const GObjectPtr<GFile> file(g_file_new_for_path(m_Store->Path().c_str()));
    m_pMonitor.reset(g_file_monitor_file(file.get(), G_FILE_MONITOR_WATCH_MOVES, nullptr, nullptr));
    g_main_context_pop_thread_default(m_pContext.get());
    if (m_pMonitor == nullptr) {
        return false;
    }
    g_file_monitor_set_rate_limit(m_pMonitor.get(), 0);
    g_signal_connect(m_pMonitor.get(), "changed", G_CALLBACK(&OnChanged), this);
    const CSignalsBlocked signalsBlocked;
    try {
        m_Thread = std::thread([this] { Run(); });
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

bool CRegdbWatcher::HasRegistrations() {
    const std::lock_guard lock(m_Mutex);
    return !m_Registrations.empty();
}

// Somebody may have registered again in the meantime, and a callback may do so until the thread
// has ended.
void CRegdbWatcher::Stop() {
    if (HasRegistrations() || !m_Thread.joinable()) {
        return;
    }
    GSource* pQuit = g_idle_source_new();
    g_source_set_callback(
        pQuit,
        [](gpointer pLoop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
            return G_SOURCE_REMOVE;
        },
        m_pLoop.get(), nullptr);
    g_source_attach(pQuit, m_pContext.get());
    g_source_unref(pQuit);
    m_Thread.join();
    m_pMonitor.reset();
    if (HasRegistrations()) {
        Start();
    }
}

void CRegdbWatcher::Run() {
    t_bWatcherThread = true;
    g_main_context_push_thread_default(m_pContext.get());
    g_main_loop_run(m_pLoop.get());
    g_main_context_pop_thread_default(m_pContext.get());
}

void CRegdbWatcher::OnChanged(GFileMonitor* /*pMonitor*/, GFile* /*pFile*/, GFile* /*pOther*/,
                              GFileMonitorEvent /*event*/, gpointer pWatcher) {
    static_cast<CRegdbWatcher*>(pWatcher)->CheckAll();
}

void CRegdbWatcher::CheckAll() {
    Registrations registrations;
    {
        const std::lock_guard lock(m_Mutex);
        registrations = m_Registrations;
    }
    for (const auto& registration : registrations) {
        Check(*registration);
    }
}

void CRegdbWatcher::Check(Registration& registration) {
    std::optional<std::string> text = m_Store->Text(registration.key);
    {
        const std::lock_guard lock(m_Mutex);
        if (registration.removed || registration.text == text) {
            return;
        }
        registration.text = std::move(text);
        m_pRunning = &registration;
    }
    _keynode_t node{registration.key};
    registration.pCallback(&node, registration.pUserData);
    const std::lock_guard lock(m_Mutex);
    m_pRunning = nullptr;
    m_Returned.notify_all();
}
