// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYKeyWatch.h"

#include "TYLog.h"

#include <algorithm>
#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

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

// Called from C, which no exception may enter.
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
