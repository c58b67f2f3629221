// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyWatch.h"

#include "TYLog.h"
#include "TYUndestroyed.h"

#include <algorithm>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

CTYKeyWatch& CTYKeyWatch::Instance() {
    static CTYUndestroyed<CTYKeyWatch> watch;
    return watch.Get();
}

int CTYKeyWatch::Add(Callback callback, void* pData) {
    const CChange change(*this);
    if (Find(pData) != nullptr) {
        return 0;
    }
    const int result = Watch();
    if (result == 0) {
        auto entry = std::make_shared<Entry>(callback, pData);
        CTYLock lock(m_Mutex);
        m_Entries.push_back(std::move(entry));
    }
    return result;
}

int CTYKeyWatch::Watch() {
    const int result =
        m_bWatching ? 0 : regdb_notify_key_changed(KEY, &CTYKeyWatch::OnKeyChanged, this);
    m_bWatching = result == 0;
    return result;
}

// A callback is waited for before all other changes are kept out: who waits for one's callback need
// not wait for another's.
int CTYKeyWatch::Remove(void* pData) {
    const std::shared_ptr<Entry> entry = Find(pData);
    if (entry != nullptr) {
        entry->gate.Close();
    }
    const CChange change(*this);
    {
        CTYLock lock(m_Mutex);
        std::erase(m_Entries, entry);
    }
    if (!IsEmpty()) {
        return 0;
    }
    m_bWatching = false;
    return regdb_ignore_key_changed(KEY, &CTYKeyWatch::OnKeyChanged);
}

// Called from C, which no exception may enter.
void CTYKeyWatch::OnKeyChanged(struct _keynode_t* pNode, void* pWatch) {
    if (pWatch == nullptr) {
        TY_LOG_ERROR("pData is NULL!");
        return;
    }
    try {
        for (const std::shared_ptr<Entry>& entry : static_cast<CTYKeyWatch*>(pWatch)->Current()) {
            if (const CTYCallbackGate::CPass pass(entry->gate); pass) {
                entry->pCallback(pNode, entry->pData);
            }
        }
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

CTYKeyWatch::CChange::CChange(CTYKeyWatch& watch) : m_Watch(watch) {
    CTYLock lock(m_Watch.m_Mutex);
    while (m_Watch.m_bChanging) {
        m_Watch.m_ChangedCondition.Wait(m_Watch.m_Mutex);
    }
    m_Watch.m_bChanging = true;
}

CTYKeyWatch::CChange::~CChange() {
    CTYLock lock(m_Watch.m_Mutex);
    m_Watch.m_bChanging = false;
    m_Watch.m_ChangedCondition.NotifyAll();
}

bool CTYKeyWatch::IsEmpty() {
    CTYLock lock(m_Mutex);
    return m_Entries.empty();
}

CTYKeyWatch::Entries CTYKeyWatch::Current() {
    CTYLock lock(m_Mutex);
    return m_Entries;
}

std::shared_ptr<CTYKeyWatch::Entry> CTYKeyWatch::Find(void* pData) {
    CTYLock lock(m_Mutex);
    const auto found = std::find_if(m_Entries.begin(), m_Entries.end(),
                                    [pData](const auto& entry) { return entry->pData == pData; });
    return found == m_Entries.end() ? nullptr : *found;
}
