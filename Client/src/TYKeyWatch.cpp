// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyWatch.h"

#include "TYLog.h"

#include <algorithm>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

// The problem. Every collector of a process watches the same settings key. The platform's interface
// makes that hard in three ways:
//  - It removes a registration by key and callback alone, not by data. Some platforms then remove
//    all registrations of the callback, others the oldest: if each collector registered, one
//    collector could remove the watch of another.
//  - It calls back on a thread of its own, at any moment, even while a collector is being deleted.
//  - It may hold a lock of its own while it calls back and while it removes, so a lock of ours that
//    is held around both deadlocks.
//
// The idea. The process registers once, and this class distributes the callback over its entries,
// one for each collector. The first Add registers with the platform, the last Remove unregisters.
// With a single registration both kinds of platform behave alike.
//
// A callback copies the list of entries under m_Mutex, releases it, and then enters each entry's
// gate (CTYCallbackGate) before it calls the collector. The copies share ownership of the entries,
// so a gate outlives its removal from the list. Remove closes the gate of its own entry, which
// waits for a callback that is inside and keeps later ones out.
//
// What must always hold:
//  - When Remove has returned, no callback with its data runs, and none will start.
//  - m_Mutex guards the list only. It is never held while the platform or a callback runs.
//  - m_ChangeMutex makes "is this the first or the last entry?" and the platform's call one step.
//    It is held while the platform registers or removes, and so never inside a callback: a callback
//    must not call Add or Remove.
//  - Remove closes the gate before it takes m_ChangeMutex. It then waits for its own callback only,
//    and a collector can be deleted while another collector's callback waits for the service.
//  - m_bWatching is false after a refused registration and after every removal, so that the next
//    Add registers. If the platform refuses a removal and a later Add registers again, the platform
//    has two registrations and calls back twice for each change. That is harmless: each callback
//    reads the key again.

int CTYKeyWatch::Add(void* pData) {
    CTYLock changing(m_ChangeMutex);
    if (Find(pData) != nullptr) {
        return 0;
    }
    if (const int result = Watch(); result != 0) {
        return result;
    }
    auto entry = std::make_shared<Entry>(pData);
    CTYLock lock(m_Mutex);
    m_Entries.push_back(std::move(entry));
    return 0;
}

int CTYKeyWatch::Watch() {
    const int result =
        m_bWatching ? 0 : regdb_notify_key_changed(kKey, &CTYKeyWatch::OnKeyChanged, this);
    m_bWatching = result == 0;
    return result;
}

int CTYKeyWatch::Remove(void* pData) {
    const std::shared_ptr<Entry> entry = Find(pData);
    if (entry != nullptr) {
        entry->gate.Close();
    }
    CTYLock changing(m_ChangeMutex);
    {
        CTYLock lock(m_Mutex);
        std::erase(m_Entries, entry);
        if (!m_Entries.empty()) {
            return 0;
        }
    }
    m_bWatching = false;
    return regdb_ignore_key_changed(kKey, &CTYKeyWatch::OnKeyChanged);
}

// Called by the platform, which is C code: no exception may leave it.
void CTYKeyWatch::OnKeyChanged(struct _keynode_t* pNode, void* pWatch) {
    if (pWatch == nullptr) {
        TY_LOG_ERROR("pData is NULL!");
        return;
    }
    auto* pThis = static_cast<CTYKeyWatch*>(pWatch);
    try {
        for (const std::shared_ptr<Entry>& entry : pThis->Current()) {
            if (const CTYCallbackGate::CPass pass(entry->gate); pass) {
                pThis->m_pCallback(pNode, entry->pData);
            }
        }
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

CTYKeyWatch::Entries CTYKeyWatch::Current() {
    CTYLock lock(m_Mutex);
    return m_Entries;
}

std::shared_ptr<CTYKeyWatch::Entry> CTYKeyWatch::Find(void* pData) {
    CTYLock lock(m_Mutex);
    const auto found = std::find_if(m_Entries.begin(), m_Entries.end(),
                                    [pData](const auto& entry) { return entry->pData == pData; });
    if (found == m_Entries.end()) {
        return nullptr;
    }
    return *found;
}
