// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYTHREAD_H
#define TALLYRA_TYTHREAD_H

#include <pthread.h>

/// A thread of the library, joinable, in somebody else's process.
///
/// - It has a stack of its own size, 256 KiB or what the host's thread-local variables need more: a
///   host may set the default to less than a log line needs.
/// - It blocks all signals but the faults that it raises itself, so that the host's handlers run on
///   the host's own threads.
/// - It is scheduled as SCHED_BATCH, so that it does not preempt a player that wakes it, whatever
///   priority the caller has.
/// - An allocation failure inside the body is logged and fails an assertion.
/// - Starting it allocates nothing.
///
/// Threads: one owner; CTYThread itself has no lock. Destroying a thread that was not joined ends
/// the process, as with std::thread.
class CTYThread {
  public:
    CTYThread() = default;
    ~CTYThread();
    CTYThread(const CTYThread&) = delete;
    CTYThread& operator=(const CTYThread&) = delete;

    /// Runs `Body` of an object, after joining the thread that ran before.
    /// @return false, with an error line, when the system gives no thread
    template <auto Body, class Object>
    bool Start(Object* pObject) {
        return Start([](void* pData) { (static_cast<Object*>(pData)->*Body)(); }, pObject);
    }

    bool IsJoinable() const { return m_bJoinable; }

    /// Waits until the body has returned; returns at once when there is no thread.
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
