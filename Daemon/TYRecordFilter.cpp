// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecordFilter.h"

#include "TYRecordImage.h"
#include "TYRedaction.h"

#include <cstring>
#include <string_view>
#include <utility>

// Problem: the library asks for the policy once, when it connects, and another client need not ask
// at all. A policy that is set later, or that names users, must hold for records on their way.
//
// Idea: look the policy up again for each batch, by the applications in its images. The records of
// a batch nearly always belong to one application, and the store caches policies.
//
// Always true:
// - No record of an application is stored whose policy was 0, or was bound to other users, when the
//   record's turn came.
// - If the policies cannot be read, nothing is stored.

namespace {

std::string_view IdOf(const TYMediaData& record) {
    return {record.serviceID, strnlen(record.serviceID, sizeof(record.serviceID))};
}

// Redacts records. Neighbours nearly always have the same URL, so its redaction is kept.
class CRedactor {
  public:
    void Redact(TYMediaData& record, std::optional<std::string>& url) {
        RedactTexts(record);
        if (!url) {
            return;
        }
        if (url != m_Sent) {
            m_Sent = url;
            m_strRedacted = RedactedUrl(*url);
        }
        url = m_strRedacted;
    }

  private:
    std::optional<std::string> m_Sent;
    std::string m_strRedacted;
};

}  // namespace

std::optional<std::size_t> CTYRecordFilter::Apply(TYBatch& batch) {
    Rules rules;
    if (!FindRules(batch, rules)) {
        return std::nullopt;
    }
    CRedactor redactor;
    std::size_t kept = 0;
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        const Rule& rule = rules.find(IdOf(batch.records[i]))->second;
        if (rule.refusal) {
            m_Store.CountLoss(*rule.refusal, rule.application, 1);
            continue;
        }
        if (kept != i) {
            batch.records[kept] = batch.records[i];
            batch.urls[kept] = std::move(batch.urls[i]);
        }
        if (!rule.keepsQueries) {
            redactor.Redact(batch.records[kept], batch.urls[kept]);
        }
        ++kept;
    }
    const std::size_t removed = batch.records.size() - kept;
    batch.records.resize(kept);
    batch.urls.resize(kept);
    return removed;
}

bool CTYRecordFilter::FindRules(const TYBatch& batch, Rules& rules) {
    for (const TYMediaData& record : batch.records) {
        if (rules.contains(IdOf(record))) {
            continue;
        }
        std::optional<Rule> rule = RuleFor(record, batch.sender);
        if (!rule) {
            return false;
        }
        rules.emplace(IdOf(record), *std::move(rule));
    }
    return true;
}

std::optional<CTYRecordFilter::Rule> CTYRecordFilter::RuleFor(const TYMediaData& record,
                                                              const TYPeerIdentity& sender) {
    Rule rule{ValidText(IdOf(record)), std::nullopt, m_bKeepQueries};
    const std::optional<TYPolicy> policy = m_Store.Policy(rule.application);
    if (!policy) {
        return std::nullopt;
    }
    if (policy->value == 0) {
        rule.refusal = TYLossReason::POLICY;
    } else if (!policy->Admits(sender.uid)) {
        rule.refusal = TYLossReason::BINDING;
    }
    rule.keepsQueries = rule.keepsQueries || policy->keepQueries;
    return rule;
}
