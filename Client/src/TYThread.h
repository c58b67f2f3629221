// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTHREAD_H
#define TALLYRA_TYTHREAD_H

#include <pthread.h>

/// A joinable thread of the library in a host's process.
///
/// - Its stack has 256 KiB, or more if the host's thread-local variables need it. The default of
///   the host is not used, because it may be smaller than a log line needs.
/// - It blocks all signals except the faults that a thread raises itself, so that the host's
///   handlers run on the host's threads.
/// - It runs as SCHED_BATCH, whatever the priority of the starting thread, so that it does not
///   preempt the player that wakes it.
/// - An allocation failure inside the thread's body is logged and fails an assertion.
/// - Starting it allocates nothing.
///
/// Stack, signal mask and scheduling are those of GuestThread.h. The Linux platform has a thread
/// class of its own, CPlatformThread, which shares these. It also stops its thread with a
/// cancellation inside poll and has rules for forked children. The library's threads need neither:
/// they wait on condition variables, and TYProcess.h keeps forked children away from them.
///
/// Threads: one owner; CTYThread has no lock. Destroying a thread that was not joined terminates
/// the process, as with std::thread.
class CTYThread {
  public:
    CTYThread() = default;
    ~CTYThread();
    CTYThread(const CTYThread&) = delete;
    CTYThread& operator=(const CTYThread&) = delete;

    /// Joins the previous thread, then runs the member function `Body` of an object on a new one.
    /// @return false if no thread can be started, which is logged
    template <auto Body, class Object>
    bool Start(Object* pObject) {
        return Start([](void* pData) { (static_cast<Object*>(pData)->*Body)(); }, pObject);
    }

    bool IsJoinable() const { return m_bJoinable; }

    /// Waits until the body has returned. Returns at once if there is no thread to join.
    void Join();

  private:
    using Function = void (*)(void* pData);

    static void* Run(void* pThread);
    bool Start(Function function, void* pData);

    pthread_t m_Thread{};
    Function m_pFunction = nullptr;
    void* m_pData = nullptr;
    bool m_bJoinable = false;
};

#endif  // TALLYRA_TYTHREAD_H
