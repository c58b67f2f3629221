// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREKEEPER_H
#define TALLYRA_TYSTOREKEEPER_H

#include "TYStore.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

/// Keeps a store open through all that may happen to its file: a full disk, a lock, a folder that
/// may not be written, a damaged database. What fails is refused with one log line until something
/// works again; a damaged file is set aside under a name with the time, never deleted.
///
/// Threads: one.
class CTYStoreKeeper {
  public:
    CTYStoreKeeper(std::string path, TYStoreLimits limits);

    /// Opens the store. Every other operation does so too when it has to.
    /// @return whether it is open
    bool Open();

    /// @return whether the batch is stored
    bool Add(const TYBatch& batch);

    /// @return the application's policy; nothing when the store cannot be read
    std::optional<int> Policy(const std::string& application);

    void Prune(std::int64_t now);

    /// Closes the file and opens it again, which may be another one by now.
    void Reopen();

  private:
    using Clock = std::chrono::steady_clock;

    template <class Operation>
    bool Try(const char* pWhat, Operation operation);
    bool OpenNow();
    void Report(const char* pWhat, const CTYDatabaseError& error);
    void SetAside();

    const std::string m_strPath;
    const TYStoreLimits m_Limits;
    std::unique_ptr<CTYStore> m_pStore;
    Clock::time_point m_NextOpen;
    int m_nReported = SQLITE_OK;
};

#endif  // TALLYRA_TYSTOREKEEPER_H
