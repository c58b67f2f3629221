// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_DELIVERY_H
#define TALLYRA_TESTS_FUZZ_MODEL_DELIVERY_H

#include "model/Analysis.h"
#include "model/Record.h"

#include <deque>
#include <vector>

namespace model {

/// What becomes of records: they are analysed, wait for the service and are sent. An analyzer and a
/// sender each work once; started again after that, they do what waits and no more.
class CDelivery {
  public:
    /// Takes a record.
    void Push(const Record& record, Time now);

    void StartAnalyzer(Time now);
    void StartSender();
    /// Both have done what waited when they have ended.
    void EndAnalyzer() { m_bAnalyzes = false; }
    void EndSender();
    /// Drops what waits for the sender.
    void DropWaiting() { m_Waiting.clear(); }
    std::size_t Waiting() const { return m_Waiting.size(); }

    /// @return whether there are records that only another start gets to the service for certain
    bool HasLeftovers() const { return !m_NotAnalysed.empty() || !m_MaybeSent.empty(); }

    /// @return what was sent, in order
    const std::vector<Record>& Sent() const { return m_Sent; }
    /// @return what may have been sent behind that: of what an analyzer hands to a sender while
    ///         both are ending, the sender may see the first records, or all, or none
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
