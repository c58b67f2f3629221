// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRendition.h"

#include "tallyra/TYConventions.h"

#include <algorithm>

void CTYRendition::SetVariant(std::int64_t time, int kbps) {
    m_bAdaptive = true;
    if (kbps != 0 && (m_Announced.empty() || m_Announced.back().kbps != kbps)) {
        m_Announced.push_back({time, kbps});
    }
}

void CTYRendition::SetTags(const TYTags& tags) {
    int& tag = tags.isVideo ? m_nVideoTag : m_nAudioTag;
    tag = tag == 0 ? tags.kbps : tag;
}

void CTYRendition::SetPicture(const TYPictureSize& size) {
    const int frameSize = TYFrameSize(size.width, size.height);
    if (frameSize == m_Current.size) {
        return;
    }
    const bool isFirst = m_Current.size == 0;
    m_Current.size = frameSize;
    if (m_bAdaptive) {
        m_Current.kbps = isFirst ? 0 : TakeAnnounced(frameSize);
    }
}

void CTYRendition::Continue() {
    const int size = m_Current.size;
    Reset();
    m_Current.size = size;
}

void CTYRendition::Flush() {
    if (m_Announced.size() > 1) {
        m_Announced.erase(m_Announced.begin(), m_Announced.end() - 1);
    }
}

// Variants that were announced before the one that is seen were never shown.
int CTYRendition::TakeAnnounced(int size) {
    const auto known = m_KnownRates.find(size);
    if (known != m_KnownRates.end()) {
        const auto same = std::ranges::find(m_Announced, known->second, &Announced::kbps);
        if (same != m_Announced.end()) {
            m_Announced.erase(m_Announced.begin(), same + 1);
        }
        return known->second;
    }
    if (m_Announced.empty()) {
        return 0;
    }
    const int kbps = m_Announced.front().kbps;
    m_Announced.pop_front();
    m_KnownRates[size] = kbps;
    return kbps;
}

void CTYRendition::TakeTags(std::int64_t now) {
    m_nVideoTagTime = m_nVideoTag == 0 || m_nVideoTagTime == 0 ? now : m_nVideoTagTime;
    const bool hasSound = m_nAudioTag != 0 || now - m_nVideoTagTime >= kSoundWithin;
    m_bTagsTaken = m_Current.size != 0 ? m_nVideoTag != 0 && hasSound : m_nAudioTag != 0;
    m_Current.kbps = m_bTagsTaken ? m_nVideoTag + m_nAudioTag : 0;
}

std::optional<CTYRendition::Value> CTYRendition::TakeChange(std::int64_t now) {
    if (!m_bAdaptive && !m_bTagsTaken) {
        TakeTags(now);
    }
    while (!m_Announced.empty() && m_Announced.front().time + kSameSizeAfter <= now) {
        m_Current.kbps = m_Announced.front().kbps;
        m_Announced.pop_front();
    }
    if (m_Current == m_Returned) {
        return std::nullopt;
    }
    m_Returned = m_Current;
    return m_Current;
}
