// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_DELIVERY_H
#define TALLYRA_TESTS_FUZZ_MODEL_DELIVERY_H

#include "Record.h"

#include <deque>
#include <optional>
#include <vector>

namespace model {

/// The records that the analyzer derives from a stream of records.
class CAnalysis {
  public:
    /// @param now  is the time at which the analyzer handles the record
    /// @return the record that follows this one, if any
    std::optional<Record> Derive(const Record& record, Time now);

  private:
    std::optional<Record> Measure(const Record& record, Time now);
    std::int32_t SinceAnchor(std::int32_t position) const;

    // The position that play time counts from; 0 for a stream that begins inside a playback.
    std::optional<std::int32_t> m_Anchor = 0;
    std::optional<Time> m_StallBegan;
    Time m_Started;
};

/// The way of records: analysed, queued until the service is found, sent. The analyzer and the
/// sender run once; when they are started again after their end, they only handle what is queued.
class CDelivery {
  public:
    /// Takes a record from the collector.
    void Push(const Record& record, Time now);

    void StartAnalyzer(Time now);
    void StartSender();
    /// When they end, both have handled what was queued.
    void EndAnalyzer() { m_bAnalyzes = false; }
    void EndSender();
    /// Drops the records queued for the sender.
    void DropWaiting() { m_Waiting.clear(); }
    std::size_t Waiting() const { return m_Waiting.size(); }

    /// @return whether some records are sent for certain only after another start
    bool HasLeftovers() const { return !m_NotAnalysed.empty() || !m_MaybeSent.empty(); }

    /// @return the records sent, in order
    const std::vector<Record>& Sent() const { return m_Sent; }
    /// @return the records that may have been sent after those: when both threads are ending, the
    ///         sender may get some, all or none of the analyzer's last records
    std::vector<Record> MaybeSent() const { return {m_MaybeSent.begin(), m_MaybeSent.end()}; }

  private:
    enum class Sender { NOT_STARTED, RUNNING, ENDED };

    void Analyse(const Record& record, Time now);
    void PassOn(const Record& record);

    CAnalysis m_Analysis;
    bool m_bAnalyzes = true;
    Sender m_Sender = Sender::NOT_STARTED;
    std::deque<Record> m_NotAnalysed;
    std::deque<Record> m_Waiting;
    std::deque<Record> m_MaybeSent;
    std::vector<Record> m_Sent;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_DELIVERY_H
