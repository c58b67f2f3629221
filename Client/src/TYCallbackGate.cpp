// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCallbackGate.h"

// The problem. A platform calls back on a thread of its own, while another thread may be deleting
// the object that the callback uses. A flag "deleted" that the callback tests is not enough: the
// callback may test the flag just before it is set, and then uses a freed object. A mutex held
// through the callback would order the two threads. But a callback may take seconds (it asks the
// service for a policy and joins threads), may run on two threads at once, and must not deadlock
// with locks that the platform holds around it.
//
// The idea. Count the callbacks that are inside, and keep the mutex only for the counting. A
// callback enters before it touches the object and leaves afterwards. The deleting thread closes
// the gate: from then on no callback enters, and Close waits until the count is zero.
//
// What must always hold:
//  - The test of m_bClosed and the increment of m_nInside happen under one lock, as do the store of
//    m_bClosed and the test of m_nInside. Therefore each callback either is counted before Close
//    looks, and Close waits for it, or comes later and is refused.
//  - Leave notifies while it holds the lock. After the last Leave, Close may return and its caller
//    may free the gate's owner; without the lock the notification could touch a freed condition.
//  - The gate itself outlives the last callback that may enter it. CTYKeyWatch shares ownership of
//    its entries with the running callbacks for that reason.
//  - Close is not called from inside the gate, where it would wait for itself.

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
