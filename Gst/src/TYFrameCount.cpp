// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYFrameCount.h"

namespace {

// A count that fell began again from 0.
std::uint64_t Added(std::uint64_t before, std::uint64_t now) {
    return now >= before ? now - before : now;
}

}  // namespace

void CTYFrameCount::Set(const void* pElement, std::uint64_t dropped, std::uint64_t rendered) {
    const std::lock_guard lock(m_Mutex);
    Sum& last = m_Last[pElement];
    m_Sum.dropped += Added(last.dropped, dropped);
    m_Sum.rendered += Added(last.rendered, rendered);
    last = {dropped, rendered};
}

void CTYFrameCount::Forget(const void* pElement) {
    const std::lock_guard lock(m_Mutex);
    m_Last.erase(pElement);
}

CTYFrameCount::Sum CTYFrameCount::Get() const {
    const std::lock_guard lock(m_Mutex);
    return m_Sum;
}
