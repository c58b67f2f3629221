// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREKEEPER_H
#define TALLYRA_TYSTOREKEEPER_H

#include "TYStore.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

/// Keeps a store open through all that may happen to its file: a full disk, a lock, a folder that
/// may not be written, a damaged database. What fails is refused with one log line until it works
/// again; a damaged file is set aside under a name with the time, never deleted.
///
/// Threads: one.
class CTYStoreKeeper {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    CTYStoreKeeper(std::string path, TYStoreLimits limits, Now now = Clock::now);

    /// Opens the store. Every other operation does so too when it has to, once a second at the
    /// most.
    /// @return whether it is open
    bool Open();

    /// @return whether the batch is stored
    bool Add(const TYBatch& batch);

    /// @return the application's policy; nothing when the store cannot be read
    std::optional<int> Policy(const std::string& application);

    /// Drops some of what is too old or too much.
    /// @return whether there is more to do
    bool Prune(std::int64_t now);

    /// @return whether so much was added that Prune is due
    bool HasGrown() const { return m_pStore != nullptr && m_pStore->HasGrown(); }

    /// Closes the file and opens it again, which may be another one by now.
    void Reopen();

  private:
    enum class Task { OPEN, ADD, POLICY, PRUNE, COUNT };

    static const char* TextOf(Task task);

    template <class Operation>
    bool Try(Task task, Operation operation);
    bool OpenNow();
    void Close();
    void LeaveToItsReaders();
    bool CanTryAgain(const CTYDatabaseError& error);
    void Report(Task task, const CTYDatabaseError& error);
    void Recover(Task task);
    bool SetAside();

    const std::string m_strPath;
    const TYStoreLimits m_Limits;
    const Now m_Now;
    std::unique_ptr<CTYStore> m_pStore;
    Clock::time_point m_NextOpen;
    bool m_bAnnounced = false;  ///< where the records are was logged, and still holds
    bool m_bStuck = false;      ///< that a damaged file cannot be moved was logged
    // One bit for each kind of error that was logged since the task last worked.
    std::array<std::uint64_t, static_cast<std::size_t>(Task::COUNT)> m_Reported{};
};

#endif  // TALLYRA_TYSTOREKEEPER_H
