// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "model/Delivery.h"

namespace model {

namespace {

// So many wait for an analyzer that does not work, at the most.
constexpr std::size_t kMostNotAnalysed = 200;

void Move(std::deque<Record>& from, std::vector<Record>& to) {
    to.insert(to.end(), from.begin(), from.end());
    from.clear();
}

}  // namespace

void CDelivery::Push(const Record& record, Time now) {
    if (m_bAnalyzes) {
        Analyse(record, now);
    } else if (m_NotAnalysed.size() < kMostNotAnalysed) {
        m_NotAnalysed.push_back(record);
    }
}

void CDelivery::Analyse(const Record& record, Time now) {
    PassOn(record);
    if (const auto derived = m_Analysis.Derive(record, now)) {
        PassOn(*derived);
    }
}

void CDelivery::PassOn(const Record& record) {
    switch (m_Sender) {
        case Sender::NOT_STARTED:
            m_Waiting.push_back(record);
            break;
        case Sender::RUNNING:
            m_Sent.push_back(record);
            break;
        default:
            m_MaybeSent.push_back(record);
    }
}

// What the sender had not seen the last time, it sees when it is started with it.
void CDelivery::StartAnalyzer(Time now) {
    Move(m_MaybeSent, m_Sent);
    if (!m_bAnalyzes) {
        for (const Record& record : m_NotAnalysed) {
            Analyse(record, now);
        }
        m_NotAnalysed.clear();
    }
}

void CDelivery::StartSender() {
    if (m_Sender == Sender::NOT_STARTED) {
        m_Sender = Sender::RUNNING;
        Move(m_Waiting, m_Sent);
    }
}

void CDelivery::EndSender() {
    if (m_Sender == Sender::RUNNING) {
        m_Sender = Sender::ENDED;
    }
}

}  // namespace model
