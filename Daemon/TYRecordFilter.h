// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYRECORDFILTER_H
#define TALLYRA_TYRECORDFILTER_H

#include "TYStoreKeeper.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>

/// Enforces the policies on a batch before it is stored, and redacts its URLs.
///
/// Threads: one.
class CTYRecordFilter {
  public:
    /// @param keepQueries  keeps all URLs as they were sent
    CTYRecordFilter(CTYStoreKeeper& store, bool keepQueries)
        : m_Store(store), m_bKeepQueries(keepQueries) {}

    /// Removes the records that a policy refuses, and counts them as lost. Redacts the URLs of the
    /// others.
    /// @return the number of records removed; nothing if the policies cannot be read, the batch is
    ///         then unchanged
    std::optional<std::size_t> Apply(TYBatch& batch);

  private:
    /// What to do with the records of an application.
    struct Rule {
        std::string application;
        std::optional<TYLossReason> refusal;
        bool keepsQueries = false;
    };

    /// By the identifier as the image has it.
    using Rules = std::map<std::string, Rule, std::less<>>;

    bool FindRules(const TYBatch& batch, Rules& rules);
    std::optional<Rule> RuleFor(const TYMediaData& record, const TYPeerIdentity& sender);

    CTYStoreKeeper& m_Store;
    const bool m_bKeepQueries;
};

#endif  // TALLYRA_TYRECORDFILTER_H
