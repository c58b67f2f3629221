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

/// Keeps a store usable in spite of faults of its file: a full disk, a lock, a read-only folder, a
/// damaged database. An operation that fails is refused; the keeper logs one line, and another when
/// the operation works again. A damaged file is renamed, never deleted.
///
/// Threads: one.
class CTYStoreKeeper {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;

    CTYStoreKeeper(std::string path, TYStoreLimits limits, Now now = Clock::now);

    /// Opens the store. Every other operation also tries to open a closed store, at most once a
    /// second.
    /// @return whether the store is open
    bool Open();

    /// @return whether the batch was stored
    bool Add(const TYBatch& batch);

    /// @return the application's policy; nothing if the store cannot be read
    std::optional<int> Policy(const std::string& application);

    /// Drops some playbacks that exceed the limits.
    /// @return whether to call again
    bool Prune();

    /// @return whether enough was added to call Prune
    bool HasGrown() const { return m_pStore != nullptr && m_pStore->HasGrown(); }

    /// Closes the file and opens its path again, after the file was moved away. Does not close an
    /// in-memory store, which would lose its records.
    void Reopen();

  private:
    enum class Task { OPEN, ADD, POLICY, PRUNE, COUNT };

    static const char* TextOf(Task task);

    template <class Operation>
    bool Try(Task task, Operation operation);
    bool OpenNow();
    void Close();
    void MoveLogAside();
    bool CanTryAgain(const CTYDatabaseError& error);
    void Report(Task task, const CTYDatabaseError& error);
    void Recover(Task task);
    void LogClockStep();
    bool SetAside();

    const std::string m_strPath;
    const TYStoreLimits m_Limits;
    const Now m_Now;
    std::unique_ptr<CTYStore> m_pStore;
    Clock::time_point m_NextOpen;
    bool m_bAnnounced = false;  ///< the path of the open store was logged
    bool m_bStuck = false;      ///< logged that a damaged file cannot be renamed
    // For each task, one bit for each kind of error logged since the task last succeeded.
    std::array<std::uint64_t, static_cast<std::size_t>(Task::COUNT)> m_Reported{};
};

#endif  // TALLYRA_TYSTOREKEEPER_H
