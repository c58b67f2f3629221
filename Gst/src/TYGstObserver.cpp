// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYGstObserver.h"

#include "GuestThread.h"
#include "TYLoggedCollector.h"

#include <algorithm>
#include <exception>
#include <utility>
#include <variant>

namespace {

// Often enough to find a stall. When a look is reported, the second one after it has just been
// made: so the thread wakes up for both at once.
constexpr std::int64_t kLookPeriod = CTYDelayLine::kReportDelay / 2;
constexpr std::int64_t kIdleLookPeriod = 500'000;
constexpr std::int64_t kAskPeriod = 1'000'000;
constexpr std::int64_t kAskAgainPeriod = 30'000'000;
constexpr std::int64_t kForever = 3'600'000'000;

// A query passes through all elements, and the pipeline may be disposed on this thread.
constexpr std::size_t kStackBytes = std::size_t{2} << 20;

// An application may detach after gst_deinit.
void Warn(const char* pWhat, const char* pMore) {
    if (gst_is_initialized()) {
        GST_WARNING("tallyra: %s%s", pWhat, pMore);
    }
}

}  // namespace

CTYGstObserver::CTYGstObserver(GstElement* pPipeline, std::string application, int player)
    : m_strApplication(std::move(application)),
      m_nPlayer(player),
      m_pQueue(std::make_shared<CTYEventQueue>()),
      m_Watch(pPipeline, m_pQueue) {}

bool CTYGstObserver::Start(GstElement* pPipeline) {
    if (!m_Watch.Connect(pPipeline)) {
        return false;
    }
    const CSignalsBlocked signalsBlocked;
    if (CreateThreadWithStack(kStackBytes, &m_Thread, Body, this) == 0) {
        return true;
    }
    BeginDetach();
    return false;
}

void CTYGstObserver::BeginDetach() {
    m_pQueue->Close();
    m_Watch.Disconnect();
}

void CTYGstObserver::Detach(std::unique_ptr<CTYGstObserver> pObserver,
                            std::chrono::milliseconds longest) {
    CTYGstObserver& self = *pObserver;
    self.BeginDetach();
    const bool isOwnThread = pthread_equal(pthread_self(), self.m_Thread) != 0;
    bool hasEnded = false;
    {
        std::unique_lock lock(self.m_EndMutex);
        hasEnded =
            !isOwnThread && self.m_End.wait_for(lock, longest, [&self] { return self.m_bEnded; });
        if (!hasEnded) {
            pthread_detach(self.m_Thread);
            self.m_bLeft = true;
            static_cast<void>(pObserver.release());
        }
    }
    if (hasEnded) {
        pthread_join(self.m_Thread, nullptr);
    }
}

bool CTYGstObserver::HasEnded() {
    const std::lock_guard lock(m_EndMutex);
    return m_bEnded;
}

void* CTYGstObserver::Body(void* pSelf) {
    UnblockFaults();
    UseBatchScheduling();
    pthread_setname_np(pthread_self(), "tallyra-gst");
    auto& self = *static_cast<CTYGstObserver*>(pSelf);
    try {
        self.Report();
    } catch (const std::exception& error) {
        Warn("an observer ends: ", error.what());
    }
    self.m_pQueue->Abandon();
    std::unique_ptr<CTYGstObserver> pLeft;  // deleted after the mutex is unlocked
    const std::lock_guard lock(self.m_EndMutex);
    self.m_bEnded = true;
    self.m_End.notify_one();
    pLeft.reset(self.m_bLeft ? &self : nullptr);
    return nullptr;
}

void CTYGstObserver::Report() {
    const std::unique_ptr<ITYDataCollector> pCollector(
        GetTYDataCollectorInstance(m_strApplication.c_str(), static_cast<TY_PLAYER_ID>(m_nPlayer)));
    if (pCollector == nullptr) {
        return;
    }
    CTYLoggedCollector logged(*pCollector);
    Run(logged);
    if (const unsigned lost = m_pQueue->Lost(); lost > 0) {
        Warn(std::to_string(lost).c_str(), " events found no memory or no room");
    }
}

void CTYGstObserver::Run(ITYDataCollector& collector) {
    CTYPlaybackMapper mapper(collector);
    while (!m_bClosed || !mapper.IsFinished()) {
        const std::int64_t due = mapper.NextDue().value_or(CTYEventQueue::Now() + kForever);
        for (TYGstEvent& event : m_pQueue->Wait(std::min(due, NextLook(mapper)))) {
            Take(mapper, std::move(event));
        }
        if (CTYEventQueue::Now() >= NextLook(mapper)) {
            Look(mapper);
        }
        mapper.Advance(CTYEventQueue::Now());
    }
}

// A playback starts with its source. Some pipelines do not tell theirs, and some never get one.
void CTYGstObserver::Take(CTYPlaybackMapper& mapper, TYGstEvent event) {
    const auto* pChange = std::get_if<TYStateChange>(&event.what);
    const bool starts = pChange != nullptr && pChange->before == TYPipelineState::READY &&
                        pChange->now == TYPipelineState::PAUSED;
    const bool fails = std::holds_alternative<TYGstError>(event.what);
    if (!m_bSourceKnown && (starts || fails)) {
        m_bSourceKnown = true;
        mapper.Add({event.time, TYSourceReady{m_Watch.FindUri()}});
    }
    if (pChange != nullptr) {
        m_bPlaying = pChange->now == TYPipelineState::PLAYING;
        m_bSourceKnown = m_bSourceKnown && pChange->now >= TYPipelineState::PAUSED;
    }
    m_bSourceKnown = m_bSourceKnown || std::holds_alternative<TYSourceReady>(event.what);
    // The duration may now be that of the next content.
    m_bNextAnnounced = (m_bNextAnnounced || std::holds_alternative<TYAboutToFinish>(event.what)) &&
                       !std::holds_alternative<TYStreamStart>(event.what) && m_bSourceKnown;
    m_bClosed = m_bClosed || std::holds_alternative<TYClosed>(event.what);
    mapper.Add(std::move(event));
}

void CTYGstObserver::Look(CTYPlaybackMapper& mapper) {
    const std::int64_t now = CTYEventQueue::Now();
    const bool isDue = now - m_nAsked >= (mapper.WantsDuration() ? kAskPeriod : kAskAgainPeriod);
    // A short film may be read whole, and the next one announced, before the first question.
    const bool asks = m_bPlaying && isDue && (!m_bNextAnnounced || mapper.WantsDuration());
    m_nAsked = asks ? now : m_nAsked;
    TYSample sample = m_Watch.Look(asks);
    m_nLooked = CTYEventQueue::Now();
    mapper.Add({m_nLooked, sample});
}

std::int64_t CTYGstObserver::NextLook(const CTYPlaybackMapper& mapper) const {
    if (m_bClosed) {
        return CTYEventQueue::Now() + kForever;
    }
    if (m_bPlaying && mapper.IsStarted()) {
        return m_nLooked + kLookPeriod;
    }
    return mapper.IsStarted() ? m_nLooked + kIdleLookPeriod : CTYEventQueue::Now() + kForever;
}
