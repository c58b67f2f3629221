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

/// A thread of the platform in a host's process. PlatformThread.cpp explains how it is stopped.
///
/// Stack, signal mask and scheduling are those of GuestThread.h. The library has a thread class of
/// its own, CTYThread, which shares these. It has neither the cancellation nor the fork rules,
/// because its threads wait on condition variables.
///
/// In a forked child, where the thread does not exist, all calls return at once.
///
/// Life: Start, RequestStop, Join; then Start again. The owner must outlive the thread. Start and
/// Join must not run on two threads at the same time.
///
/// Threads: any may call RequestStop and the queries. The mutex guards only the pause.
class CPlatformThread {
  public:
    CPlatformThread() = default;
    CPlatformThread(const CPlatformThread&) = delete;
    CPlatformThread& operator=(const CPlatformThread&) = delete;

    /// @param pBody  must not throw
    /// @return false when the system refuses a thread
    bool Start(void (*pBody)(void* pContext), void* pContext);
    void RequestStop();
    /// Waits until the thread has ended. Must not be called on the thread itself.
    void Join();
    /// Joins the thread if it has ended; does not wait.
    /// @return whether no thread is left to join
    bool TryJoin();
    /// @return whether the thread was started in this process and not joined yet
    bool IsStarted() const;
    /// @return whether the thread was joined, or never started. In a forked child the result stays
    ///         false for a thread of the parent. This object must not be destroyed there, because
    ///         that thread may have held the mutex at the fork.
    bool IsOver() const { return m_nProcess == 0; }
    /// @return whether the calling thread is this one
    bool RunsHere() const;

    bool IsStopping() const { return m_bStop; }
    /// Waits one second, or until the stop is requested. Call it on the thread itself.
    void Pause();
    enum class Wait { READABLE, STOPPED_OR_LOST, IMPOSSIBLE };
    /// Waits until the group's first descriptor is readable, the stop is requested, or the host has
    /// closed a descriptor of the group. Call it on the thread itself. A stop during the wait
    /// unwinds the thread's stack, so no caller may be noexcept, hold a lock, or catch all
    /// exceptions.
    Wait AwaitReadable(const CGuestDescriptors& descriptors) const;

  private:
    static void* Main(void* pThread);

    void (*m_pBody)(void* pContext) = nullptr;
    void* m_pContext = nullptr;
    pthread_t m_Thread{};
    /// The process that started it; 0 when there is no thread to join.
    std::atomic<pid_t> m_nProcess{0};
    std::atomic<bool> m_bStop{false};
    std::mutex m_Mutex;
    std::condition_variable m_Stopping;
};

#endif  // TALLYRA_PLATFORM_PLATFORMTHREAD_H
