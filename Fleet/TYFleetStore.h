// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYFLEETSTORE_H
#define TALLYRA_TYFLEETSTORE_H

#include "ITYFleetDatabase.h"
#include "TYStore.h"

#include <map>
#include <string>
#include <utility>

/// The records of a few devices in a store like that of the service: each device is a sender, so
/// that the command reads it as any store.
///
/// Threads: one.
class CTYFleetStore : public ITYFleetDatabase {
  public:
    /// Opens the file, or creates it.
    /// @throws CTYDatabaseError        if it belongs to another program, or cannot be opened
    /// @throws CTYDatabaseUnavailable  if another collector uses it
    CTYFleetStore(const std::string& path, TYStoreLimits limits);

    /// One transaction for each run of records that arrived together.
    std::vector<TYWatermark> Add(std::span<const TYForwardedBatch> batches) override;
    /// The records of a playback are in the order in which they were stored, so those of a device
    /// must come in order.
    std::vector<std::size_t> TooEarly(std::span<const TYForwardedBatch> batches) override;
    void Refuse(const std::string& reason, const TYForwardedBatch* pRange,
                std::int64_t last) override;
    std::int64_t StoredUpTo(const std::string& device, const std::string& epoch) override;
    void Maintain() override;

  private:
    /// Held while the file is in use. The descriptor must be closed after SQLite's: the first one
    /// of a process that is closed ends the locks of all.
    class CLock {
      public:
        explicit CLock(const std::string& path);
        ~CLock();
        CLock(const CLock&) = delete;
        CLock& operator=(const CLock&) = delete;

      private:
        int m_nFd;
    };

    void Store(const TYForwardedBatch& batch);
    void StoreRange(const TYForwardedBatch& batch, std::size_t begin, std::size_t end,
                    std::int64_t after);
    void Cover(const std::string& device, const std::string& epoch, std::int64_t first,
               std::int64_t last);
    bool IsCovered(const std::string& device, const std::string& epoch, std::int64_t id);
    void NoteOrigin(const TYForwardedBatch& batch, std::size_t begin, std::size_t end);

    CLock m_Lock;
    CTYStore m_Store;
    CTYStatement m_FindCovered;
    CTYStatement m_FindStored;
    CTYStatement m_Merge;
    CTYStatement m_DropMerged;
    CTYStatement m_Cover;
    CTYStatement m_NoteOrigin;
};

#endif  // TALLYRA_TYFLEETSTORE_H
