// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceStatus.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

namespace {

constexpr std::chrono::seconds kTextPeriod{10};

std::string WithCommas(std::int64_t number) {
    std::string text = std::to_string(number);
    for (std::size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, ",");
    }
    return text;
}

}  // namespace

void CTYServiceStatus::Update(const TYKeeperState& state, Clock::time_point now) {
    if (m_AlivePeriod.count() > 0 && now >= m_NextAlive) {
        m_NextAlive = now + m_AlivePeriod;
        m_Notify("WATCHDOG=1");
    }
    if (now < m_NextText) {
        return;
    }
    m_NextText = now + kTextPeriod;
    std::string text = TextOf(state);
    if (text != m_strText) {
        m_strText = std::move(text);
        m_Notify("STATUS=" + m_strText);
    }
}

CTYServiceStatus::Clock::time_point CTYServiceStatus::Next() const {
    return m_AlivePeriod.count() > 0 ? std::min(m_NextAlive, m_NextText) : m_NextText;
}

std::string CTYServiceStatus::TextOf(const TYKeeperState& state) {
    std::array<char, 32> size;
    std::snprintf(size.data(), size.size(), "%.1f MiB",
                  static_cast<double>(state.bytes) / (1 << 20));
    return WithCommas(state.stored) + " records stored, " + WithCommas(state.refused) +
           " refused, " + size.data() + (state.isOpen ? "" : "; the store cannot be opened");
}
