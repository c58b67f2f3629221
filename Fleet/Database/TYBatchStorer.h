// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYBATCHSTORER_H
#define TALLYRA_TYBATCHSTORER_H

#include "TYContextTable.h"
#include "TYForwardedBatch.h"
#include "TYPlaybackTable.h"
#include "TYSourceTable.h"

#include <pqxx/pqxx>
#include <string>
#include <vector>

/// Stores batches within one transaction that holds the locks of their devices.
///
/// Threads: one.
class CTYBatchStorer {
  public:
    /// @param day       the partition that the records go to
    /// @param covered   of all sources of the batches; receives what they add
    /// @param contexts  between Begin and Write
    CTYBatchStorer(pqxx::transaction_base& transaction, const std::string& day,
                   const CTYSourceTable& sources, CTYSourceTable::Coverages& covered,
                   CTYContextTable& contexts);

    /// @throws CTYBadBatch  if the ids or the epochs of a batch are impossible
    static void Check(const TYForwardedBatch& batch);
    /// @return whether a device may say that it has nothing to send in this range
    static bool IsRange(std::int64_t after, std::int64_t last);
    /// Adds the ids of a batch.
    static void Cover(const TYForwardedBatch& batch, const CTYSourceTable& sources,
                      CTYSourceTable::Coverages& covered);

    /// Takes those records of a batch that are not covered yet.
    /// @param batch  one that passes Check; must outlive this object
    void Add(const TYForwardedBatch& batch);

    void Write();

  private:
    struct Entry {
        TYRecordKey key;
        std::int64_t context;
        std::int64_t arrival;
        const TYMediaData* pRecord;
    };
    struct Run;

    void BeginRun(const TYForwardedBatch& batch, std::size_t index, int device, Run& run);
    void WriteEntries();

    pqxx::transaction_base& m_Transaction;
    const std::string m_strDay;
    const CTYSourceTable& m_Sources;
    CTYSourceTable::Coverages& m_Covered;
    CTYContextTable& m_Contexts;
    CTYPlaybackTable m_Playbacks;
    std::vector<Entry> m_Entries;
};

#endif  // TALLYRA_TYBATCHSTORER_H
