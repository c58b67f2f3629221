// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCallbackGate.h"

void CTYCallbackGate::Close() {
    CTYLock lock(m_Mutex);
    m_bClosed = true;
    while (m_nInside > 0) {
        m_LeftCondition.Wait(m_Mutex);
    }
}

bool CTYCallbackGate::Enter() {
    CTYLock lock(m_Mutex);
    if (m_bClosed) {
        return false;
    }
    ++m_nInside;
    return true;
}

void CTYCallbackGate::Leave() {
    CTYLock lock(m_Mutex);
    --m_nInside;
    m_LeftCondition.NotifyAll();
}

CTYCallbackGate::CPass::~CPass() {
    if (m_bInside) {
        m_Gate.Leave();
    }
}
