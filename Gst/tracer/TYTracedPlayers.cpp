// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYTracedPlayers.h"

#include <cstring>
#include <exception>
#include <iterator>
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
void DetachEach(std::list<std::unique_ptr<CTYGstObserver>>& observers) {
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
    try {
        // A running observer cannot just be deleted, so its place in a list is made before.
        Observers made;
        made.push_back(Make(pElement));
        if (made.front()->Start(pElement)) {
            Keep(made);
        }
    } catch (const std::exception&) {
        GST_WARNING("tallyra: no memory to observe a player");
    }
}

std::unique_ptr<CTYGstObserver> CTYTracedPlayers::Make(GstElement* pElement) {
    std::unique_lock lock(m_Mutex);
    const std::string application = m_strApplication;
    const int player = m_nPlayer;
    lock.unlock();
    return std::make_unique<CTYGstObserver>(pElement, application, player);
}

// An observer whose thread has ended is joined at once, so this does not block.
void CTYTracedPlayers::Keep(Observers& made) {
    Observers ended;
    {
        const std::lock_guard lock(m_Mutex);
        for (auto each = m_Observers.begin(); each != m_Observers.end();) {
            const auto next = std::next(each);
            if ((*each)->HasEnded()) {
                ended.splice(ended.end(), m_Observers, each);
            }
            each = next;
        }
        m_Observers.splice(m_Observers.end(), made);
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
