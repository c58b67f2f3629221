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

/// The thread of a pipeline stage: works while there is work, otherwise sleeps for at most 20 s,
/// and drains its stage when it is asked to end.
///
/// Life: constructed without a thread. Start makes one; RequestTerminate drains the stage and joins
/// it. A later Start makes a thread that only drains what has come meanwhile: a worker is not
/// restartable. The owner's destructor must call Shutdown, which leaves no thread.
///
/// Threads: any may call Start, RequestTerminate and Shutdown. These exclude one another through
/// the control mutex, which is held through the joins. WakeUpThread takes no lock. The wait mutex
/// is held around the wait and its log lines. The two flags are atomic.
class CTYWorker {
  public:
    /// What the stage's log lines say, and under which tag.
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

    /// What the stage does. Both functions run on the worker's thread.
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
    /// @param beforeThread  called first, under the control mutex, when a thread is to be started
    /// @return whether a thread runs now
    bool Start(const std::function<void()>& beforeThread) TY_EXCLUDES(m_ControlMutex);

    /// Drains the stage. Returns when the thread is gone.
    void RequestTerminate() TY_EXCLUDES(m_ControlMutex);

    /// Calls RequestTerminate unless that was done before, and joins a thread that was started
    /// since.
    void Shutdown() TY_EXCLUDES(m_ControlMutex);

    /// Makes the thread look for work.
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
