// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_RECEIVER_REPORT_H
#define TALLYRA_TESTS_SUPPORT_RECEIVER_REPORT_H

#include "receiver/Events.h"
#include "receiver/ReceiverState.h"

#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace receiver {

/// Prints a line for each record that arrives, and a summary.
///
/// Threads: not synchronised.
class CReport {
  public:
    explicit CReport(bool colours) : m_bColours(colours) {}

    /// @return the lines for one call and its records, each with its line end
    std::string Lines(const Call& call, const std::vector<ReceivedRecord>& records);

    /// @return records by code, batches, what was derived and what was malformed
    std::string Summary() const;

  private:
    std::string RecordLine(const ReceivedRecord& record);

    const bool m_bColours;
    COriginTracker m_origins;
    std::map<std::uint8_t, std::size_t> m_codes;
    std::map<Origin, std::size_t> m_byOrigin;
    std::size_t m_nRecords = 0;
    std::size_t m_nBatches = 0;
    std::vector<std::string> m_problems;
};

}  // namespace receiver

#endif  // TALLYRA_TESTS_SUPPORT_RECEIVER_REPORT_H
