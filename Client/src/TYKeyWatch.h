// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYKEYWATCH_H
#define TALLYRA_TYKEYWATCH_H

#include "TYCallbackGate.h"
#include "TYMutex.h"

#include "regdb.h"

#include <memory>
#include <vector>

/// One watch on the collection key, shared by all collectors of a process.
///
/// The platform removes a watch by its callback alone, and platforms differ in whether that removes
/// all registrations or the oldest. With one registration both mean the same, and deleting a
/// collector does not end another collector's watch.
///
/// Threads: any. The change mutex is held over Add and Remove, the platform's call included, so
/// that registering and removing exclude each other. The entries' mutex guards the list alone and
/// is never held while the platform or a callback runs. Each entry has a gate: Remove closes it
/// before it takes the change mutex, so that it waits for its own callback only.
class CTYKeyWatch {
  public:
    using Callback = void (*)(struct _keynode_t* pNode, void* pData);

    static constexpr const char* kKey = "db/tallyra/log_on";

    /// @param callback  called as callback(node, pData) for each `pData` that was added
    explicit CTYKeyWatch(Callback callback) : m_pCallback(callback) {}
    CTYKeyWatch(const CTYKeyWatch&) = delete;
    CTYKeyWatch& operator=(const CTYKeyWatch&) = delete;

    /// Calls back with `pData`, on the platform's thread, whenever the key changes. A second call
    /// with the same data changes nothing.
    /// @return 0, or the platform's error code
    int Add(void* pData) TY_EXCLUDES(m_ChangeMutex, m_Mutex);

    /// Ends that. Once it has returned no callback with `pData` runs, and none will start. Must not
    /// be called from the callback.
    /// @return 0, or the platform's error code, which it is asked for when no entry is left
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
