// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// What must always hold, as platforms promise:
// - A callback never runs on the thread that causes a change, registers or removes.
// - Once Remove has returned on another thread, the callback does not run and will not start. So
//   Remove drops the registration with the reports that are queued for it, and waits while a
//   callback of that subject runs, even if another thread has removed it before.
// - Inside a callback, Remove cannot wait for that callback, and does not.

#include "Callbacks.h"

#include "GuestThread.h"

#include <algorithm>
#include <utility>

namespace {

// Whose callbacks this thread runs.
thread_local const CCallbacks* t_pRunning = nullptr;

}  // namespace

// The thread is never joined: its object lasts as long as the process.
bool CCallbacks::Start() {
    if (!m_bStarted) {
        pthread_t thread{};
        const auto body = [](void* pThis) -> void* {
            UnblockFaults();
            t_pRunning = static_cast<CCallbacks*>(pThis);
            static_cast<CCallbacks*>(pThis)->Run();
            return nullptr;
        };
        m_bStarted = StartGuestThread(&thread, body, this) == 0;
    }
    return m_bStarted;
}

CCallbacks::Addition CCallbacks::AddLocked(const Subject& subject, Call call) {
    if (!Start()) {
        return Addition::NO_THREAD;
    }
    m_Registrations.push_back(
        std::make_shared<Registration>(Registration{subject, std::move(call)}));
    return Addition::DONE;
}

CCallbacks::Addition CCallbacks::Add(const Subject& subject, Call call) {
    const std::lock_guard lock(m_Mutex);
    return AddLocked(subject, std::move(call));
}

CCallbacks::Addition CCallbacks::AddOnce(const Subject& subject, Call call) {
    const std::lock_guard lock(m_Mutex);
    const bool found = std::ranges::any_of(
        m_Registrations, [&](const auto& other) { return other->subject == subject; });
    return found ? Addition::THERE_BEFORE : AddLocked(subject, std::move(call));
}

template <class Condition>
bool CCallbacks::RemoveIf(Condition condition, bool waits) {
    std::unique_lock lock(m_Mutex);
    for (const RegistrationPtr& registration : m_Registrations) {
        registration->removed = registration->removed || condition(*registration);
    }
    const bool found =
        std::erase_if(m_Registrations, [](const auto& other) { return other->removed; }) > 0;
    m_nHandled += std::erase_if(m_Reports,
                                [](const Pending& report) { return report.registration->removed; });
    m_Changed.notify_all();
    if (waits) {
        m_Changed.wait(lock, [&] { return m_pRunning == nullptr || !condition(*m_pRunning); });
    }
    return found;
}

bool CCallbacks::Remove(const Subject& subject) {
    return RemoveIf([&](const Registration& other) { return other.subject == subject; },
                    t_pRunning != this);
}

void CCallbacks::Clear() {
    RemoveIf([](const Registration& /*any*/) { return true; }, t_pRunning == nullptr);
}

void CCallbacks::Report(const std::string& key, const Event& event) {
    const std::lock_guard lock(m_Mutex);
    for (const RegistrationPtr& registration : m_Registrations) {
        if (registration->subject.key == key) {
            m_Reports.push_back({registration, event});
            ++m_nReported;
        }
    }
    m_Changed.notify_all();
}

bool CCallbacks::Drain(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(m_Mutex);
    const std::uint64_t nReported = m_nReported;
    const auto handled = [&] { return m_nHandled >= nReported; };
    return t_pRunning != nullptr ? handled() : m_Changed.wait_until(lock, deadline, handled);
}

// Calls the callbacks until the process ends.
void CCallbacks::Run() {
    std::unique_lock lock(m_Mutex);
    while (true) {
        m_Changed.wait(lock, [this] { return !m_Reports.empty(); });
        const Pending report = std::move(m_Reports.front());
        m_Reports.pop_front();
        m_pRunning = report.registration;
        lock.unlock();
        report.registration->call(report.event);
        lock.lock();
        m_pRunning = nullptr;
        ++m_nHandled;
        m_Changed.notify_all();
    }
}
