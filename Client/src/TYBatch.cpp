// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBatch.h"

#include "TYLog.h"

#include <algorithm>

#define TY_LOG_TAG TY_TAG_UTIL

namespace {

std::size_t WireBytes(const TYMediaRecord& record) {
    return sizeof(TYMediaData) + record.Url().size();
}

}  // namespace

CTYBatch::~CTYBatch() {
    while (TakeOne()) {
        m_pTaken.reset();
    }
}

bool CTYBatch::Next(Call& call) {
    call.images.clear();
    call.urls.clear();
    call.images.reserve(std::min(m_nLeft + 1, kMaxCallRecords));
    call.urls.reserve(call.images.capacity());
    std::size_t bytes = 0;
    while (TakeOne() && Fits(call, bytes)) {
        bytes += WireBytes(*m_pTaken);
        call.images.push_back(*m_pTaken);
        call.urls.emplace_back(m_pTaken->Url());
        m_pTaken.reset();
    }
    return !call.images.empty();
}

// A record that does not fit the call is kept for the next one.
bool CTYBatch::TakeOne() {
    if (m_pTaken != nullptr) {
        return true;
    }
    if (m_nLeft == 0) {
        return false;
    }
    TYMediaRecord* pTaken = nullptr;
    if (!m_Queue.try_take(pTaken)) {
        TY_LOG_ERROR("queue is empty!");
        m_nLeft = 0;
        return false;
    }
    m_pTaken.reset(pTaken);
    --m_nLeft;
    return true;
}

bool CTYBatch::Fits(const Call& call, std::size_t bytes) const {
    return call.images.empty() ||
           (call.images.size() < kMaxCallRecords && bytes + WireBytes(*m_pTaken) <= kMaxCallBytes);
}
