// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_PLATFORM_CALLBACKS_H
#define TALLYRA_TESTS_PLATFORM_CALLBACKS_H

#include "Eventually.h"
#include "Test.h"

#include "connection.h"
#include "regdb.h"

/// Records callbacks of the platform. Pass the object as user data.
///
/// Threads: the platform's and the test's; the mutex guards the reports.
class CCallbacks {
  public:
    /// @param work  runs in each callback before it is recorded
    explicit CCallbacks(std::function<void()> work = nullptr) : m_Work(std::move(work)) {}

    static void OnKey(struct _keynode_t* /*pNode*/, void* pThis) {
        static_cast<CCallbacks*>(pThis)->Record("key");
    }
    static void OnNetwork(connection_error_e result, char* name, void* pThis) {
        static_cast<CCallbacks*>(pThis)->Record(std::string(name) + " " + std::to_string(result));
    }

    /// @return whether that many callbacks have returned in time
    bool WaitFor(std::size_t calls, std::chrono::milliseconds time = kPatience) {
        std::unique_lock lock(m_Mutex);
        return m_Changed.wait_for(lock, time, [&] { return m_Reports.size() >= calls; });
    }

    std::vector<std::string> Reports() {
        const std::lock_guard lock(m_Mutex);
        return m_Reports;
    }

  private:
    void Record(std::string report) {
        if (m_Work) {
            m_Work();
        }
        const std::lock_guard lock(m_Mutex);
        m_Reports.push_back(std::move(report));
        m_Changed.notify_all();
    }

    const std::function<void()> m_Work;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    std::vector<std::string> m_Reports;
};

/// Callback work that blocks until it is released, to test who waits for it.
class CBlockingWork {
  public:
    void Run() {
        m_Entered.set_value();
        m_Release.get_future().wait();
        // A caller that does not wait for this callback gets time to be noticed.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        m_bLeft = true;
    }

    bool WaitUntilEntered() {
        return m_Entered.get_future().wait_for(kPatience) == std::future_status::ready;
    }

    /// @return whether `remove`, running on another thread, returns after the callback
    template <class Remove>
    bool Outlasts(Remove remove) {
        bool left = false;
        std::thread removing([&] {
            remove();
            left = m_bLeft;
        });
        m_Release.set_value();
        removing.join();
        return left;
    }

  private:
    std::promise<void> m_Entered;
    std::promise<void> m_Release;
    std::atomic<bool> m_bLeft{false};
};

#endif  // TALLYRA_TESTS_PLATFORM_CALLBACKS_H
