// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Progress.h"

#include <unistd.h>

#include <algorithm>

CProgress::CMark::CMark(CProgress& progress, const char* pName)
    : m_Progress(progress),
      m_nSlot(progress.OwnSlot()),
      m_pOuter(progress.m_Slots[m_nSlot].pName.load()) {
    Slot& slot = m_Progress.m_Slots[m_nSlot];
    slot.since = Clock::now().time_since_epoch().count();
    slot.pName = pName;
}

CProgress::CMark::~CMark() {
    m_Progress.m_Slots[m_nSlot].pName = m_pOuter;
}

// Does not unwind: other threads of the child may be inside the platform and use what the check has
// on its stack.
void CProgress::End(Verdict verdict, const std::string& text) {
    if (m_bEnding.exchange(true)) {
        for (;;) {
            pause();
        }
    }
    text.copy(m_Text.data(), m_Text.size() - 1);
    m_Verdict = verdict;
    _exit(0);
}

std::optional<CProgress::Call> CProgress::OldestCall() const {
    std::optional<Call> oldest;
    const auto now = Clock::now().time_since_epoch();
    for (const Slot& slot : m_Slots) {
        const char* pName = slot.pName;
        const std::chrono::nanoseconds age = now - Clock::duration(slot.since);
        if (pName != nullptr && (!oldest || age > oldest->age)) {
            oldest = Call{pName, age};
        }
    }
    return oldest;
}

std::size_t CProgress::OwnSlot() {
    thread_local const std::size_t slot = std::min(m_nSlots++, m_Slots.size() - 1);
    return slot;
}
