// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPolicies.h"

#include <algorithm>
#include <cstddef>

namespace {

// Bounds the cache: peers choose the identifiers that they ask for.
constexpr std::size_t kMaxKnown = 1024;

}  // namespace

bool TYPolicy::Admits(std::optional<std::int64_t> uid) const {
    return uids.empty() || (uid && std::find(uids.begin(), uids.end(), *uid) != uids.end());
}

CTYPolicies::CTYPolicies(CTYDatabase& database)
    : m_FindPolicy(database, "SELECT value, keep_queries FROM policies WHERE application = ?"),
      m_FindUids(database, "SELECT uid FROM bindings WHERE application = ?") {}

TYPolicy CTYPolicies::Of(const std::string& application) {
    if (const auto known = m_Known.find(application); known != m_Known.end()) {
        return known->second;
    }
    std::optional<TYPolicy> policy = Read(application);
    if (!policy) {
        policy = Read("*");
    }
    if (m_Known.size() >= kMaxKnown) {
        m_Known.clear();
    }
    return m_Known[application] = policy.value_or(TYPolicy());
}

std::optional<TYPolicy> CTYPolicies::Read(const std::string& application) {
    TYPolicy policy;
    m_FindPolicy.Begin(application);
    const bool hasRow = m_FindPolicy.Step();
    if (hasRow) {
        policy.value = static_cast<int>(m_FindPolicy.Int(0));
        policy.keepQueries = m_FindPolicy.Int(1) != 0;
        m_FindPolicy.Reset();
    }
    m_FindUids.Begin(application);
    while (m_FindUids.Step()) {
        policy.uids.push_back(m_FindUids.Int(0));
    }
    if (!hasRow && policy.uids.empty()) {
        return std::nullopt;
    }
    return policy;
}
