// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_CALLBACKCHECKS_H
#define TALLYRA_TESTKIT_CALLBACKCHECKS_H

#include "Trial.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

/// What receives the callbacks of one registration. Its address is the user data. A callback on the
/// thread that made the probe is noted and does nothing else, since what it does could block the
/// check itself.
///
/// Threads: the platform's and the check's; the mutex guards the members behind it.
class CProbe {
  public:
    /// @param work  runs in each callback
    explicit CProbe(std::function<void()> work = nullptr) : m_Work(std::move(work)) {}
    CProbe(const CProbe&) = delete;
    CProbe& operator=(const CProbe&) = delete;

    /// The callback. `pUserData` is what the platform passed.
    void Enter(const void* pUserData);

    /// @return whether that many calls have begun, or ended, in time
    bool AwaitBegun(int calls, std::chrono::milliseconds time);
    bool AwaitEnded(int calls, std::chrono::milliseconds time);

    int Begun();
    bool WasOnOwnThread();
    bool HadOtherData();

  private:
    const std::function<void()> m_Work;
    const std::thread::id m_OwnThread = std::this_thread::get_id();
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    int m_nBegun = 0;
    int m_nEnded = 0;
    bool m_bOtherData = false;
    bool m_bOnOwnThread = false;
};

/// Registrations that the checks below make, remove and provoke.
class ICallbackSource {
  public:
    virtual ~ICallbackSource() = default;
    /// Makes one of two registrations, which have different callbacks.
    virtual void Register(std::size_t which, CProbe& probe) = 0;
    /// @return the platform's result
    virtual int Remove(std::size_t which) = 0;
    virtual const char* NameOfRemoval() const = 0;
    /// Makes a change that calls back.
    virtual void Change() = 0;
    /// @return what changes, for complaints
    virtual const char* NameOfChange() const = 0;
};

/// The callback comes, on a thread of the platform and with its user data.
void TryReport(CTrial& trial, ICallbackSource& source);

/// The callback may call the platform.
void TryCallsInside(CTrial& trial, ICallbackSource& source, const std::function<void()>& calls);

/// After removal no callback starts.
void TryNoneAfterRemoval(CTrial& trial, ICallbackSource& source);

/// A function that removes a registration waits for the running callback.
void TryRemovalWaits(CTrial& trial, ICallbackSource& source, const char* pName,
                     const std::function<int()>& remove);

/// The callback may remove its own registration with this function.
void TryRemovalInside(CTrial& trial, ICallbackSource& source, const char* pName,
                      const std::function<int()>& remove);

#endif  // TALLYRA_TESTKIT_CALLBACKCHECKS_H
