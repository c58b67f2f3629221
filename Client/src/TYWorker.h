// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYWORKER_H
#define TALLYRA_TYWORKER_H

#include "ITYClock.h"
#include "TYAtomic.h"
#include "TYMutex.h"
#include "TYSleeper.h"
#include "TYThread.h"

#include <functional>

/// The thread of a pipeline stage. It works while there is work, otherwise sleeps for at most 20 s,
/// and empties its stage when it is requested to end.
///
/// Life: constructed without a thread. Start starts one; RequestTerminate drains the stage and
/// joins the thread. A later Start starts a thread that only drains records queued since: a worker
/// cannot be restarted. The owner's destructor must call Shutdown, which joins any thread.
///
/// Threads: any may call Start, RequestTerminate and Shutdown. The control mutex serialises these
/// and is held through the joins. WakeUpThread takes no lock. The wait mutex is held around the
/// wait and its log lines. The two flags are atomic.
class CTYWorker {
  public:
    /// The tag and the texts of the stage's log lines.
    struct Texts {
        const char* pTag;
        const char* pStarted;
        const char* pTerminate;
        const char* pJoinable;
        const char* pJoined;
        const char* pSleeping;
        const char* pTimeout;
        const char* pWoken;
        const char* pDraining;
        const char* pFinished;
    };

    /// The work of the stage. Both functions run on the worker's thread.
    struct Stage {
        std::function<bool()> hasWork;
        std::function<void()> work;
        /// True: after a wait, the worker processes waiting work before it checks for a request to
        /// end.
        bool bWorksAfterWait;
    };

    CTYWorker(const Texts& texts, Stage stage, ITYClock& clock);
    ~CTYWorker() = default;
    CTYWorker(const CTYWorker&) = delete;
    CTYWorker& operator=(const CTYWorker&) = delete;

    /// Starts the thread; a second call while it runs logs an error line and changes nothing.
    /// @param beforeThread  called under the control mutex before the thread starts; may be empty
    /// @return whether a thread runs now
    bool Start(const std::function<void()>& beforeThread) TY_EXCLUDES(m_ControlMutex);

    /// Drains the stage and joins the thread.
    void RequestTerminate() TY_EXCLUDES(m_ControlMutex);

    /// Calls RequestTerminate unless it was called before, and joins a thread that was started
    /// after it.
    void Shutdown() TY_EXCLUDES(m_ControlMutex);

    /// Wakes the thread if it sleeps, to look for work. Takes no lock.
    void WakeUpThread() noexcept { m_WaitCondition.NotifyAll(); }

    /// @return whether a thread takes work now
    bool IsRunning() const { return !m_bThreadStopped; }

  private:
    void Run();
    void Work();
    void Wait() TY_EXCLUDES(m_WaitMutex);
    void Drain();
    void JoinWithWaker() TY_REQUIRES(m_ControlMutex);
    void WakeUntilStopped() TY_EXCLUDES(m_WaitMutex);

    // Set once.
    const Texts& m_Texts;
    const Stage m_Stage;
    ITYClock& m_Clock;

    CTYMutex m_ControlMutex;
    CTYThread m_Thread TY_GUARDED_BY(m_ControlMutex);

    CTYMutex m_WaitMutex;
    CTYCondition m_WaitCondition;

    CTYSleeper m_WakerSleeper;
    CTYAtomic<bool> m_bThreadStopped{true};
    CTYAtomic<bool> m_bRequestTerminate{false};
};

#endif  // TALLYRA_TYWORKER_H
