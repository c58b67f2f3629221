// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSENDTIMER_H
#define TALLYRA_TYSENDTIMER_H

#include "TYAtomic.h"

#include <memory>

/// A timer on the host's GLib main loop. The library runs no main loop of its own: in a host
/// without one the timer never fires.
///
/// Life: Register adds the timer, UnRegister removes it; both may be repeated. The owner calls
/// UnRegister before it destroys the timer.
///
/// Threads: the owner calls Register and UnRegister, one at a time. The host's main loop runs the
/// callback, on any thread. The gate in TimerLink makes UnRegister wait for a running callback.
class CTYSendTimer {
  public:
    /// As GLib's GSourceFunc: returns non-zero to keep the timer.
    using Callback = int (*)(void* pData);

    CTYSendTimer(Callback callback, void* pData) : m_Callback(callback), m_pData(pData) {}
    CTYSendTimer(const CTYSendTimer&) = delete;
    CTYSendTimer& operator=(const CTYSendTimer&) = delete;

    /// Makes the main loop call back every `period` milliseconds. Does nothing if a timer is
    /// registered already.
    void Register(int period);

    /// Removes the timer. Blocks while its callback runs; afterwards the callback does not start.
    void UnRegister();

  private:
    struct TimerLink;

    static int OnTimer(void* pLink);
    static void FreeLink(void* pLink);

    const Callback m_Callback;
    void* const m_pData;
    CTYAtomic<unsigned int> m_nTimerId{0};
    std::shared_ptr<TimerLink> m_pLink;
};

#endif  // TALLYRA_TYSENDTIMER_H
