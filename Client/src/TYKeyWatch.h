// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYKEYWATCH_H
#define TALLYRA_TYKEYWATCH_H

#include "TYCallbackGate.h"
#include "TYMutex.h"

#include "regdb.h"

#include <memory>
#include <vector>

/// One watch on the collection key, shared by all collectors of a process. The source explains why
/// collectors share it, and what its locks guard.
///
/// Threads: any. m_ChangeMutex is held through Add and most of Remove, including the platform's
/// call. m_Mutex guards the list of entries and is never held while the platform or a callback
/// runs.
class CTYKeyWatch {
  public:
    using Callback = void (*)(struct _keynode_t* pNode, void* pData);

    static constexpr const char* kKey = "db/tallyra/log_on";

    /// @param callback  receives the node and, once for each entry, the data given to Add
    explicit CTYKeyWatch(Callback callback) : m_pCallback(callback) {}
    CTYKeyWatch(const CTYKeyWatch&) = delete;
    CTYKeyWatch& operator=(const CTYKeyWatch&) = delete;

    /// Makes the platform's thread call back with `pData` whenever the key changes. A second call
    /// with the same data has no effect.
    /// @return 0, or the platform's error code
    int Add(void* pData) TY_EXCLUDES(m_ChangeMutex, m_Mutex);

    /// Removes an entry. Blocks while a callback with `pData` runs; after it has returned, none
    /// runs or starts. Must not be called from the callback.
    /// @return 0; or, when no entry is left, what the platform returns for the removal
    int Remove(void* pData) TY_EXCLUDES(m_ChangeMutex, m_Mutex);

  private:
    struct Entry {
        explicit Entry(void* pUserData) : pData(pUserData) {}

        void* const pData;
        CTYCallbackGate gate;
    };
    using Entries = std::vector<std::shared_ptr<Entry>>;

    static void OnKeyChanged(struct _keynode_t* pNode, void* pWatch);
    int Watch() TY_REQUIRES(m_ChangeMutex);
    Entries Current() TY_EXCLUDES(m_Mutex);
    std::shared_ptr<Entry> Find(void* pData) TY_EXCLUDES(m_Mutex);

    const Callback m_pCallback;

    CTYMutex m_ChangeMutex;
    bool m_bWatching TY_GUARDED_BY(m_ChangeMutex) = false;

    CTYMutex m_Mutex;
    Entries m_Entries TY_GUARDED_BY(m_Mutex);
};

#endif  // TALLYRA_TYKEYWATCH_H
