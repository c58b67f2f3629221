// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FailingMemory.h"

#include <atomic>

namespace {

// Plain statics: allocations are made before any constructor has run.
std::atomic<bool> g_bArmed{false};
std::atomic<bool> g_bForGood{false};
std::atomic<bool> g_bFailed{false};
std::atomic<long> g_nLeft{0};

}  // namespace

void CFailingMemory::Arm(long nth, bool forGood) {
    g_nLeft = nth;
    g_bForGood = forGood;
    g_bArmed = true;
}

void CFailingMemory::Disarm() {
    g_bArmed = false;
}

bool CFailingMemory::HasFailed() {
    return g_bFailed;
}

bool CFailingMemory::FailsNow() {
    if (!g_bArmed) {
        return false;
    }
    const long left = --g_nLeft;
    const bool fails = left == 0 || (left < 0 && g_bForGood);
    if (fails) {
        g_bFailed = true;
    }
    return fails;
}
