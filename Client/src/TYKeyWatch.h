// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYKEYWATCH_H
#define TALLYRA_TYKEYWATCH_H

#include "TYCallbackGate.h"
#include "TYMutex.h"

#include "regdb.h"

#include <memory>
#include <vector>

/// The process's one watch on the collection key, shared by all of its collectors.
///
/// The platform removes a watch by its callback alone, and platforms differ in whether that removes
/// all registrations or the oldest. With one registration both mean the same, and a collector that
/// goes takes nobody else's watch with it.
///
/// Threads: any. The mutex guards the members and is never held while the platform or a callback
/// runs; m_bChanging keeps registering and removing apart.
class CTYKeyWatch {
  public:
    using Callback = void (*)(struct _keynode_t* pNode, void* pData);

    static constexpr const char* KEY = "db/tallyra/log_on";

    /// @return the process's watch; it is never destroyed, since the platform may hold it longer
    ///         than a host that exits holds its collectors
    static CTYKeyWatch& Instance();

    /// Has `callback(node, pData)` called on the platform's thread whenever the key changes. A
    /// second call with the same data changes nothing.
    /// @return 0, or the platform's error code
    int Add(Callback callback, void* pData);

    /// Ends that. Once it has returned no callback with `pData` runs, and none will start. Must not
    /// be called from the callback.
    /// @return 0, or the platform's error code, which it is asked for when nobody watches any more
    int Remove(void* pData);

  private:
    struct Entry {
        Entry(Callback callback, void* pUserData) : pCallback(callback), pData(pUserData) {}

        const Callback pCallback;
        void* const pData;
        CTYCallbackGate gate;
    };
    /// Keeps all other changes out for a scope.
    class CChange {
      public:
        explicit CChange(CTYKeyWatch& watch);
        ~CChange();
        CChange(const CChange&) = delete;
        CChange& operator=(const CChange&) = delete;

      private:
        CTYKeyWatch& m_Watch;
    };
    using Entries = std::vector<std::shared_ptr<Entry>>;

    static void OnKeyChanged(struct _keynode_t* pNode, void* pWatch);
    int Watch();
    Entries Current() TY_EXCLUDES(m_Mutex);
    bool IsEmpty() TY_EXCLUDES(m_Mutex);
    std::shared_ptr<Entry> Find(void* pData) TY_EXCLUDES(m_Mutex);

    CTYMutex m_Mutex;
    CTYCondition m_ChangedCondition;
    bool m_bChanging TY_GUARDED_BY(m_Mutex) = false;
    Entries m_Entries TY_GUARDED_BY(m_Mutex);

    // Whoever is changing.
    bool m_bWatching = false;
};

#endif  // TALLYRA_TYKEYWATCH_H
