// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYTracedPlayers.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

namespace {

bool IsPlaybin(GstElement* pElement) {
    if (!GST_IS_PIPELINE(pElement)) {
        return false;
    }
    GstElementFactory* pFactory = gst_element_get_factory(pElement);
    const gchar* pName = pFactory != nullptr ? GST_OBJECT_NAME(pFactory) : "";
    return std::strcmp(pName, "playbin") == 0 || std::strcmp(pName, "playbin3") == 0;
}

// A forked child leaves the observers of its parent alone.
void DetachEach(std::vector<std::unique_ptr<CTYGstObserver>>& observers) {
    for (auto& pObserver : observers) {
        if (!pObserver->IsOfThisProcess()) {
            pObserver.release();  // NOLINT(bugprone-unused-return-value)
        }
    }
    std::erase(observers, nullptr);
    for (const auto& pObserver : observers) {
        pObserver->BeginDetach();
    }
    for (auto& pObserver : observers) {
        CTYGstObserver::Detach(std::move(pObserver));
    }
}

}  // namespace

CTYTracedPlayers::CTYTracedPlayers() {
    const gchar* pName = g_get_prgname();
    m_strApplication = pName != nullptr ? pName : "unknown";
}

void CTYTracedPlayers::Configure(const std::string& application, int player) {
    const std::lock_guard lock(m_Mutex);
    m_strApplication = application.empty() ? m_strApplication : application;
    m_nPlayer = player;
}

void CTYTracedPlayers::Attach(GstElement* pElement) {
    if (!IsPlaybin(pElement) || CTYPipelineWatch::IsWatched(pElement)) {
        return;
    }
    std::string application;
    int player = 0;
    {
        const std::lock_guard lock(m_Mutex);
        application = m_strApplication;
        player = m_nPlayer;
    }
    try {
        auto pObserver = std::make_unique<CTYGstObserver>(pElement, application, player);
        if (pObserver->Start(pElement)) {
            Keep(std::move(pObserver));
        }
    } catch (const std::bad_alloc&) {
        GST_WARNING("tallyra: no memory to observe a player");
    }
}

// An observer whose thread has ended is joined at once, so this does not block.
void CTYTracedPlayers::Keep(std::unique_ptr<CTYGstObserver> pObserver) {
    Observers ended;
    {
        const std::lock_guard lock(m_Mutex);
        const auto first = std::partition(m_Observers.begin(), m_Observers.end(),
                                          [](const auto& pEach) { return !pEach->HasEnded(); });
        std::move(first, m_Observers.end(), std::back_inserter(ended));
        m_Observers.erase(first, m_Observers.end());
        m_Observers.push_back(std::move(pObserver));
    }
    DetachEach(ended);
}

void CTYTracedPlayers::DetachAll() {
    Observers all;
    {
        const std::lock_guard lock(m_Mutex);
        std::swap(all, m_Observers);
    }
    DetachEach(all);
}
