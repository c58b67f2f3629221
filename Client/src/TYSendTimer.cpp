// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSendTimer.h"

#include "TYCallbackGate.h"
#include "TYLog.h"
#include "TYProcess.h"
#include "TYRaceAnnotation.h"

#include <fcntl.h>
#include <glib.h>
#include <unistd.h>

#include <array>

#define TY_LOG_TAG TY_TAG_UTIL

// The problem: the host's main loop runs the callback on a thread that the library does not know,
// possibly while the sender is being deleted. g_source_remove does not wait for that callback: GLib
// releases the callback data only when the main loop has released the source, which can be later.
//
// The idea: the source holds no pointer to the owner. It holds a reference to a TimerLink, which
// contains the owner's pointer and a gate. UnRegister removes the source and then closes the gate:
// that waits for a callback that is inside, and makes a later one return at once.
//
// What must always hold: every callback enters the gate before it uses the owner's pointer. A
// forked child has inherited the source but may have deleted the sender, so there the callback
// removes the source and does nothing else.

namespace {

// The first source of a process makes GLib's default main context, which needs a file descriptor;
// without one GLib aborts. If the host uses up the last descriptors between this check and
// g_timeout_add_full, GLib still aborts.
bool HasDescriptorsForMainContext() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        return false;
    }
    close(ends[0]);
    close(ends[1]);
    return true;
}

}  // namespace

struct CTYSendTimer::TimerLink {
    TimerLink(Callback called, void* pPassed) : callback(called), pData(pPassed) {}

    const Callback callback;
    void* const pData;
    const CTYProcess process;
    CTYCallbackGate gate;
};

void CTYSendTimer::Register(int period) {
    if (m_nTimerId != 0) {
        return;
    }
    if (!HasDescriptorsForMainContext()) {
        TY_LOG_ERROR("no file descriptor for the send timer, records wait up to 20 s without it");
        return;
    }
    m_pLink = std::make_shared<TimerLink>(m_Callback, m_pData);
    auto held = std::make_unique<std::shared_ptr<TimerLink>>(m_pLink);
    TY_RACE_RELEASE(held.get());
    m_nTimerId = g_timeout_add_full(G_PRIORITY_DEFAULT, static_cast<guint>(period), &OnTimer,
                                    held.release(), &FreeLink);
    TY_LOG_DEBUG("CTYDataSender Time : %d,  Timer : %d", period, static_cast<int>(m_nTimerId));
}

void CTYSendTimer::UnRegister() {
    if (m_nTimerId == 0) {
        return;
    }
    g_source_remove(m_nTimerId);
    m_nTimerId = 0;
    m_pLink->gate.Close();
}

int CTYSendTimer::OnTimer(void* pLink) {
    TY_RACE_ACQUIRE(pLink);
    const auto& link = *static_cast<std::shared_ptr<TimerLink>*>(pLink);
    if (!link->process.IsCurrent()) {
        return G_SOURCE_REMOVE;
    }
    int result = G_SOURCE_REMOVE;
    {
        const CTYCallbackGate::CPass pass(link->gate);
        if (pass) {
            result = link->callback(link->pData);
        }
    }
    TY_RACE_RELEASE(pLink);
    return result;
}

void CTYSendTimer::FreeLink(void* pLink) {
    TY_RACE_ACQUIRE(pLink);
    delete static_cast<std::shared_ptr<TimerLink>*>(pLink);
}
