// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCALLBACKGATE_H
#define TALLYRA_TYCALLBACKGATE_H

#include "TYMutex.h"

/// Protects an object from callbacks of another thread while it is deleted: after Close has
/// returned, no callback is inside, and none enters. The source explains how.
///
/// Threads: any. The gate must outlive the last callback that may enter it. Close must not be
/// called from inside the gate. The mutex guards both members and is not held while a callback
/// runs.
class CTYCallbackGate {
  public:
    /// Keeps later callbacks out and blocks until no callback is inside.
    void Close() TY_EXCLUDES(m_Mutex);

    /// Enters the gate for the length of a scope. Converts to false when the gate is closed; the
    /// callback must return then.
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
