// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_CALLBACKS_H
#define TALLYRA_TESTKIT_CALLBACKS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Registrations of callbacks, and the thread that calls them. The first registration starts the
/// thread, which then lasts as long as the process.
///
/// Threads: any. The mutex guards all members and is not held while a callback runs.
class CCallbacks {
  public:
    /// What is reported to a callback.
    struct Event {
        int result = 0;
        std::string name{};
    };
    /// What removes a registration. Changes are reported for a key.
    struct Subject {
        std::string key;
        std::uintptr_t id;
        bool operator==(const Subject&) const = default;
    };
    using Call = std::function<void(const Event&)>;

    /// @return false if the system refuses a thread
    bool Add(const Subject& subject, Call call);
    bool Has(const Subject& subject);

    /// Removes all registrations of a subject, and what is still to be reported to them. Waits
    /// until none of its callbacks runs, except when called inside a callback.
    /// @return whether there was one
    bool Remove(const Subject& subject);
    /// Removes all registrations, and waits as Remove does.
    void Clear();

    /// Lets the thread call all callbacks of a key, in the order of their registration.
    void Report(const std::string& key, const Event& event);

    /// @return whether all that was reported before has been handled in time; false inside a
    ///         callback
    bool Drain(std::chrono::steady_clock::time_point deadline);

  private:
    struct Registration {
        Subject subject;
        Call call;
        bool removed = false;
    };
    using RegistrationPtr = std::shared_ptr<Registration>;
    struct Pending {
        RegistrationPtr registration;
        Event event;
    };

    bool Start();
    void Run();
    bool RunsHere() const;
    template <class Condition>
    bool RemoveIf(Condition condition);

    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_bStarted = false;
    std::vector<RegistrationPtr> m_Registrations;
    std::deque<Pending> m_Reports;
    RegistrationPtr m_pRunning;
    // Numbers of reports: made, and handled or dropped.
    std::uint64_t m_nReported = 0;
    std::uint64_t m_nHandled = 0;
};

#endif  // TALLYRA_TESTKIT_CALLBACKS_H
