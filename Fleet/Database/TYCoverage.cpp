// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCoverage.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace {

void Expect(bool isSo) {
    if (!isSo) {
        throw std::runtime_error("the coverage of a device is damaged");
    }
}

std::int64_t TakeNumber(std::string_view& text) {
    std::int64_t number = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    Expect(error == std::errc());
    text.remove_prefix(static_cast<std::size_t>(pEnd - text.data()));
    return number;
}

bool Take(char expected, std::string_view& text) {
    const bool isThere = text.starts_with(expected);
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

}  // namespace

CTYCoverage::CTYCoverage(std::string_view text) {
    Expect(Take('{', text));
    while (!Take('}', text)) {
        Take(',', text);
        Expect(Take('[', text));
        const std::int64_t first = TakeNumber(text);
        Expect(Take(',', text));
        const std::int64_t end = TakeNumber(text);
        Expect(Take(')', text));
        Add(first, end - 1);
    }
    Expect(text.empty());
}

void CTYCoverage::Add(std::int64_t first, std::int64_t last) {
    if (last < first) {
        return;
    }
    std::int64_t end = last + 1;
    auto next = m_Ranges.upper_bound(first);
    if (next != m_Ranges.begin() && std::prev(next)->second >= first) {
        --next;
        first = next->first;
    }
    while (next != m_Ranges.end() && next->first <= end) {
        end = std::max(end, next->second);
        next = m_Ranges.erase(next);
    }
    m_Ranges.emplace_hint(next, first, end);
}

void CTYCoverage::Add(const CTYCoverage& other) {
    for (const auto& [first, end] : other.m_Ranges) {
        Add(first, end - 1);
    }
}

bool CTYCoverage::MayFollow(const CTYCoverage& before) const {
    return m_Ranges.size() <= std::max(kMostRanges, before.m_Ranges.size());
}

bool CTYCoverage::Has(std::int64_t id) const {
    const auto next = m_Ranges.upper_bound(id);
    return next != m_Ranges.begin() && id < std::prev(next)->second;
}

std::int64_t CTYCoverage::Watermark() const {
    const auto next = m_Ranges.upper_bound(1);
    const bool hasFirst = next != m_Ranges.begin() && std::prev(next)->second > 1;
    return hasFirst ? std::prev(next)->second - 1 : 0;
}

std::string CTYCoverage::Text() const {
    std::string text = "{";
    for (const auto& [first, end] : m_Ranges) {
        text += text.size() > 1 ? ",[" : "[";
        text += std::to_string(first) + "," + std::to_string(end) + ")";
    }
    return text + "}";
}
