// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCALLBACKGATE_H
#define TALLYRA_TYCALLBACKGATE_H

#include "TYMutex.h"

/// Stands between a callback that comes at any moment, on a thread that is not ours, and the object
/// it is meant for: once Close has returned, no callback is inside and none gets in.
///
/// Threads: any. The gate has to outlive the last callback that may ask for it. Close must not be
/// called from inside the gate. The mutex guards both members and is not held while a callback
/// runs.
class CTYCallbackGate {
  public:
    /// Shuts the gate and waits until nobody is inside.
    void Close() TY_EXCLUDES(m_Mutex);

    /// One callback's way through the gate: tests true when it is inside.
    class CPass {
      public:
        explicit CPass(CTYCallbackGate& gate) : m_Gate(gate), m_bInside(gate.Enter()) {}
        ~CPass();
        CPass(const CPass&) = delete;
        CPass& operator=(const CPass&) = delete;
        explicit operator bool() const { return m_bInside; }

      private:
        CTYCallbackGate& m_Gate;
        const bool m_bInside;
    };

  private:
    bool Enter() TY_EXCLUDES(m_Mutex);
    void Leave() TY_EXCLUDES(m_Mutex);

    CTYMutex m_Mutex;
    CTYCondition m_LeftCondition;
    int m_nInside TY_GUARDED_BY(m_Mutex) = 0;
    bool m_bClosed TY_GUARDED_BY(m_Mutex) = false;
};

#endif  // TALLYRA_TYCALLBACKGATE_H
