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

    enum class Addition { DONE, THERE_BEFORE, NO_THREAD };

    Addition Add(const Subject& subject, Call call);
    /// As Add, unless the subject has a registration already.
    Addition AddOnce(const Subject& subject, Call call);

    /// Removes all registrations of a subject, and what is still to be reported to them. Waits
    /// until none of its callbacks runs, except when called inside a callback.
    /// @return whether there was one
    bool Remove(const Subject& subject);
    /// Removes all registrations, and waits as Remove does, but never on a thread of a platform.
    void Clear();

    /// Lets the thread call all callbacks of a key, in the order of their registration.
    void Report(const std::string& key, const Event& event);

    /// Does not wait inside a callback, also one of another CCallbacks.
    /// @return whether all that was reported before has been handled in time
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
    Addition AddLocked(const Subject& subject, Call call);
    template <class Condition>
    bool RemoveIf(Condition condition, bool waits);

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
