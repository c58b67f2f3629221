// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_PLATFORMTHREAD_H
#define TALLYRA_PLATFORM_PLATFORMTHREAD_H

#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

class CGuestDescriptors;

/// A thread of the platform in a host's process.
///
/// - Its stack has a size of its own: a host may set a default that is too small for a callback.
/// - It blocks all signals but synchronous faults.
/// - RequestStop wakes it by a cancellation, which it accepts nowhere but while it waits for its
///   descriptors. No descriptor is needed for that: the host may have closed its number and used it
///   again, and a copy in a forked child would keep a closed one alive. Nor is a signal of the
///   host's: each would wake a thread that waits for one.
/// - In a forked child, where it does not run, all calls return at once.
///
/// Life: Start, RequestStop, Join; then it may be started again. The owner outlives the thread, and
/// has no two threads in Start or Join at the same time.
///
/// Threads: any may request the stop and ask. The mutex guards nothing but the pause.
class CPlatformThread {
  public:
    CPlatformThread() = default;
    CPlatformThread(const CPlatformThread&) = delete;
    CPlatformThread& operator=(const CPlatformThread&) = delete;

    /// @param pBody  must not throw
    /// @return whether the system gave a thread
    bool Start(void (*pBody)(void* pContext), void* pContext);
    void RequestStop();
    /// Waits for the thread's end. Not to be called on the thread itself.
    void Join();
    /// @return whether the thread has ended, and is joined now
    bool TryJoin();
    /// @return whether it was started in this process and is not joined yet
    bool IsStarted() const;
    /// @return whether it is joined, or was never started. In a forked child a thread of its parent
    ///         is never over, and this object must not be destroyed: its mutex may seem to be held.
    bool IsOver() const { return m_nProcess == 0; }
    /// @return whether the calling thread is this one
    bool RunsHere() const;

    bool IsStopping() const { return m_bStop; }
    /// On the thread itself: waits for a second, or until the stop is requested.
    void Pause();
    enum class Wait { READABLE, STOPPED_OR_LOST, IMPOSSIBLE };
    /// On the thread itself: waits until the first of some descriptors is readable, or the stop is
    /// requested, or the descriptors are found to be lost. Unwinds the thread when it is stopped
    /// meanwhile: no caller may be noexcept, hold a lock, or catch everything.
    Wait AwaitReadable(const CGuestDescriptors& descriptors) const;

  private:
    static void* Main(void* pThread);
    int Create(std::size_t stackSize);

    void (*m_pBody)(void* pContext) = nullptr;
    void* m_pContext = nullptr;
    pthread_t m_Thread{};
    /// The process that started it; 0 when there is none to join.
    std::atomic<pid_t> m_nProcess{0};
    std::atomic<bool> m_bStop{false};
    std::mutex m_Mutex;
    std::condition_variable m_Stopping;
};

#endif  // TALLYRA_PLATFORM_PLATFORMTHREAD_H
