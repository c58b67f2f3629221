// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

#include <utility>

void CCollectorTest::MakeCollector(const char* appId) {
    m_pCollector = std::make_unique<CTYDataCollector>(appId, TY_PLAYER_NATIVE, m_Bus, m_Clock);
}

CTYDataCollector& CCollectorTest::Collector() {
    if (m_pCollector == nullptr) {
        MakeCollector();
        EXPECT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    }
    return *m_pCollector;
}

CTYDataCollector& CCollectorTest::CollectorWithoutService() {
    m_Bus.SetOwner(false);
    MakeCollector();
    EXPECT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(1)));
    return *m_pCollector;
}

CTYDataCollector& CCollectorTest::CollectorThatStops() {
    MakeCollector();
    EXPECT_TRUE(m_Platform.WaitForLog("drop collected data"));
    EXPECT_TRUE(m_Platform.WaitForLog("Analyzer join terminate"));
    return *m_pCollector;
}

void CCollectorTest::SetContent(const std::string& url, const std::string& title,
                                unsigned startTime) {
    std::string copy = url;
    CTYContentInfo info(&copy, startTime);
    info.SetTitle(title);
    Collector().SetContentInfo(&info);
}

void CCollectorTest::SetFullContent() {
    std::string url = "http://server/film.mp4";
    CTYContentInfo info(&url, 7);
    info.SetDuration(0x01020304);
    info.SetDrmType(TY_DRM_OTHER);
    info.SetContentType(TY_CONTENT_LIVE);
    info.SetChannelID("channel");
    info.SetTitle("title");
    info.SetGenre("genre");
    info.SetCustomInfo("custom");
    Collector().SetContentInfo(&info);
}

void CCollectorTest::StartPlayback(unsigned startTime) {
    SetContent("film.mp4", "Film", startTime);
    Event(TY_EVENT_START);
}

void CCollectorTest::StartRendering() {
    StartPlayback();
    Event(TY_EVENT_RENDER_START);
}

void CCollectorTest::ReportAll(const Reports& reports) {
    for (const auto& [event, param1, param2] : reports) {
        Event(event, param1, param2);
    }
}

std::vector<TYMediaData> CCollectorTest::Reported() {
    m_pCollector.reset();
    std::vector<TYMediaData> reported;
    bool derived = false;
    for (const TYMediaData& record : SentRecords()) {
        // A derived record comes right behind its source.
        if (std::exchange(derived, false)) {
            continue;
        }
        derived = record.event == TY_EVENT_STOP || record.event == TY_EVENT_PAUSE ||
                  record.event == TY_EVENT_BUFFERING_END || record.event == TY_EVENT_RENDER_START;
        reported.push_back(record);
    }
    return reported;
}
