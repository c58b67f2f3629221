// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CollectorFixture.h"

CTYDataCollector& CCollectorTest::Collector() {
    if (m_pCollector == nullptr) {
        m_pCollector =
            std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
        EXPECT_TRUE(m_Platform.WaitForLog("Sender thread start done"));
    }
    return *m_pCollector;
}

CTYDataCollector& CCollectorTest::CollectorWithoutService() {
    m_Bus.SetOwner(false);
    m_pCollector =
        std::make_unique<CTYDataCollector>("org.example.app", TY_PLAYER_NATIVE, m_Bus, m_Clock);
    EXPECT_TRUE(m_Clock.AwaitWaiter(std::chrono::seconds(1)));
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

std::vector<TYMediaData> CCollectorTest::Reported() {
    m_pCollector.reset();
    std::vector<TYMediaData> reported;
    int skip = 0;
    for (const TYMediaData& record : SentRecords()) {
        // Derived records stand right behind what they come from.
        if (skip-- > 0) {
            continue;
        }
        skip = record.event == 2 || record.event == 3 || record.event == 5 || record.event == 6;
        reported.push_back(record);
    }
    return reported;
}

std::vector<std::string> CCollectorTest::ReportedTexts() {
    std::vector<std::string> texts;
    for (const TYMediaData& record : Reported()) {
        texts.push_back(std::to_string(record.event) + " " + std::to_string(record.param1) + " " +
                        std::to_string(record.param2));
    }
    return texts;
}
