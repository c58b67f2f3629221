// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

namespace {

testing::AssertionResult Found(std::size_t found, std::size_t expected, const std::string& text) {
    if (found == expected) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "\"" << text << "\" was logged " << found << " times";
}

}  // namespace

int FreeFd() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

void PrintTo(const Report& report, std::ostream* pOut) {
    const auto name = NameOfCode(report.event);
    *pOut << (name ? std::string(*name) : std::to_string(report.event)) << " " << report.param1
          << " " << report.param2;
}

Reports ToReports(const std::vector<TYMediaData>& records) {
    Reports reports;
    for (const TYMediaData& record : records) {
        reports.push_back({record.event, record.param1, record.param2});
    }
    return reports;
}

testing::AssertionResult CPlatformTest::Logged(int priority, const std::string& tag,
                                               const std::string& text) {
    return Found(m_Platform.CountLog(priority, tag, text), 1, text);
}

testing::AssertionResult CPlatformTest::NotLogged(const std::string& text) {
    return Found(m_Platform.CountLog(text), 0, text);
}

testing::AssertionResult CPlatformTest::LoggedAt(int priority, const std::string& tag,
                                                 const std::string& file,
                                                 const std::string& function, int line,
                                                 const std::string& text) {
    const auto log = m_Platform.Log();
    const auto found =
        std::count_if(log.begin(), log.end(), [&](const CPlatformDouble::LogLine& logged) {
            return logged.priority == priority && logged.tag == tag && logged.file == file &&
                   logged.function == function && logged.line == line && logged.text == text;
        });
    return Found(static_cast<std::size_t>(found), 1, text);
}

std::vector<TYMediaData> CSeamTest::SentRecords() {
    std::vector<TYMediaData> records;
    for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
        for (const CFakeBus::Argument& argument : call.arguments) {
            if (const auto* pImage = std::get_if<std::vector<char>>(&argument)) {
                TYMediaData record{};
                EXPECT_EQ(pImage->size(), sizeof(record));
                std::memcpy(&record, pImage->data(), std::min(pImage->size(), sizeof(record)));
                records.push_back(record);
            }
        }
    }
    return records;
}

std::vector<int> CSeamTest::SentEvents() {
    std::vector<int> events;
    for (const TYMediaData& record : SentRecords()) {
        events.push_back(record.event);
    }
    return events;
}

std::vector<std::string> CSeamTest::SentUrls() {
    std::vector<std::string> urls;
    for (const CFakeBus::Call& call : m_Bus.Calls("SendData")) {
        // The function's name is the first text; each triple ends in its payload.
        for (std::size_t i = 5; i < call.arguments.size(); i += 3) {
            if (const auto* pText = std::get_if<std::string>(&call.arguments[i])) {
                urls.push_back(*pText);
            }
        }
    }
    return urls;
}

TYMediaRecord* NewRecord(int event, std::int32_t param1, std::int32_t param2,
                         const std::string& url) {
    auto record = std::make_unique<TYMediaRecord>();
    record->event = static_cast<std::uint8_t>(event);
    record->param1 = param1;
    record->param2 = param2;
    record->pUrl = std::make_shared<const std::string>(url);
    return record.release();
}

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
