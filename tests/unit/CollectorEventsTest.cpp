// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Fixtures.h"

#include <sys/syscall.h>

using testing::IsEmpty;

namespace {

/// The calling thread's identifier; 0 for the kernel's.
thread_local pid_t t_ThreadId = 0;

}  // namespace

/// Replaces libc's in the whole program, since a test cannot make the kernel choose seven digits.
extern "C" pid_t gettid() noexcept {
    return t_ThreadId != 0 ? t_ThreadId : static_cast<pid_t>(syscall(SYS_gettid));
}

namespace {

constexpr Report kStart{TY_EVENT_START};
constexpr Report kStop{TY_EVENT_STOP};
constexpr Report kPause{TY_EVENT_PAUSE};
constexpr Report kRender{TY_EVENT_RENDER_START};
constexpr Report kResume{TY_EVENT_RESUME};
constexpr Report kSeek{TY_EVENT_SEEK};
constexpr Report kSeekComplete{TY_EVENT_SEEK_COMPLETE};

constexpr Report Position(int milliseconds, int param2 = 0) {
    return {TY_EVENT_PLAYBACK_TIME, milliseconds, param2};
}
constexpr Report Beat(int milliseconds, int distance) {
    return {TY_EVENT_PLAYING_TIME, milliseconds, distance};
}
constexpr Report Jump(int milliseconds, int from) {
    return {TY_ERROR_PLAYBACK_TIME_JUMP, milliseconds, from};
}

struct Rule {
    Reports reported;
    Reports recorded;
    /// Lines at debug priority, each logged once.
    std::vector<std::string> logged{};
};

class CEventsTest : public CCollectorTest {
  protected:
    /// Reports events in a playback, and expects these records behind those of its beginning.
    void Expect(const Rule& rule) {
        const auto beginning = static_cast<std::ptrdiff_t>(m_nBeginning);
        ReportAll(rule.reported);
        for (const std::string& text : rule.logged) {
            EXPECT_TRUE(Debug(text));
        }
        const Reports recorded = ReportedEvents();
        EXPECT_EQ(Reports(recorded.begin() + beginning, recorded.end()), rule.recorded);
    }

    /// The records of START and, once it renders, of RENDER_START.
    int m_nBeginning = 1;
};

using CStartedPlaybackTest = CTableTest<CEventsTest, Rule>;

TEST_P(CStartedPlaybackTest, RecordsByItsRules) {
    StartPlayback();
    Expect(Case());
}

const Named<Rule> kStartedRules[] = {
    {"PauseCarriesTheLastPositionAndItsFirstParameter",
     {{{TY_EVENT_PAUSE, 1, 2}}, {{TY_EVENT_PAUSE, -1, 1}}}},
    {"BufferingStartCarriesTheLastPosition",
     {{{TY_EVENT_BUFFERING_START, 3, 4}}, {{TY_EVENT_BUFFERING_START, -1, 4}}}},
    {"BufferingEndCarriesItsParameters",
     {{{TY_EVENT_BUFFERING_END, 5, 6}}, {{TY_EVENT_BUFFERING_END, 5, 6}}}},
    {"ResumeCarriesItsParameters", {{{TY_EVENT_RESUME, 7, 8}}, {{TY_EVENT_RESUME, 7, 8}}}},
    {"SeekCarriesTheLastPositionAndItsTarget",
     {{{TY_EVENT_SEEK, 9, 10}}, {{TY_EVENT_SEEK, -1, 9}}, {"[EXCUTE] event type : 9"}}},
    {"SeekCompleteCarriesItsParameters",
     {{{TY_EVENT_SEEK_COMPLETE, 11, 12}}, {{TY_EVENT_SEEK_COMPLETE, 11, 12}}}},
    {"EventWithoutANameCarriesItsParameters",
     {{{kFreeEvent, 13, 14}}, {{kFreeEvent, 13, 14}}, {"[EXCUTE] event type : 99"}}},
    {"PlayingTimeOfAPlayerIsRecordedUnchanged",
     {{{TY_EVENT_PLAYING_TIME, 1, 2}}, {{TY_EVENT_PLAYING_TIME, 1, 2}}}},
    {"CodesKeepTheirLowByte", {{{300, 1, 2}}, {{300 - 256, 1, 2}}}},
    {"EventsAfterAStopAreDropped", {{kStop, kStop, kSeek}, {{TY_EVENT_STOP, -1}}}},
    {"PositionsBeforeTheFirstFrameAreIgnored",
     {{Position(5000), {TY_EVENT_SEEK, 1}}, {{TY_EVENT_SEEK, -1, 1}}}},
    {"SecondStartIsAnError",
     {{{TY_EVENT_START, 8, 9}},
      {{TY_ERROR_DUPLICATED_START, 8, 9}},
      {"[EXCUTE] error type : 203"}}},
    {"SecondPlaybackHasNoStartTime",
     {{kStop, {TY_EVENT_START, 1, 2}}, {{TY_EVENT_STOP, -1}, {TY_EVENT_START, -1, 2}}}},
};
INSTANTIATE_TEST_SUITE_P(Table, CStartedPlaybackTest, testing::ValuesIn(kStartedRules), kByName);

using CRenderingPlaybackTest = CTableTest<CEventsTest, Rule>;

TEST_P(CRenderingPlaybackTest, RecordsByItsRules) {
    StartRendering();
    m_nBeginning = 2;
    Expect(Case());
}

const Named<Rule> kRenderingRules[] = {
    {"StopCarriesTheLastPosition",
     {{Position(7000), {TY_EVENT_STOP, 1, 2}}, {Position(7000), {TY_EVENT_STOP, 7000, 2}}}},
    {"RepeatedRenderStartIsLoggedAndRecorded",
     {{{TY_EVENT_RENDER_START, 1, 2}},
      {{TY_EVENT_RENDER_START, 1, 2}},
      {"[EXCUTE] event type : 205"}}},
    {"FirstPositionIsAnAnchorAndAHeartbeatComesThreeMinutesLater",
     {{Position(0), Position(100000), Position(180000)},
      {Position(0), Beat(180000, 180000)},
      {"[EXCUTE] event type : 8, playbackTime = 0", "[EXCUTE] event type : 20"}}},
    {"LatePositionIsAJump",
     {{Position(0), Position(189001)},
      {Position(0), Jump(189001, 0)},
      {"[EXCUTE] error type : 204"}}},
    {"HeartbeatMayComeNineSecondsLate",
     {{Position(0), Position(179999), Position(189000)}, {Position(0), Beat(189000, 189000)}}},
    {"HeartbeatIsTheNextAnchor",
     {{Position(0), Position(180000), Position(359999), Position(360000)},
      {Position(0), Beat(180000, 180000), Beat(360000, 180000)}}},
    {"JumpIsTheNextAnchor",
     {{Position(0), Position(370000), Position(360000), Position(540000)},
      {Position(0), Jump(370000, 0), Jump(360000, 370000), Beat(540000, 180000)}}},
    {"OneMillisecondBackIsAJump",
     {{Position(5000), Position(4999)}, {Position(5000), Jump(4999, 5000)}}},
    {"PositionOfMinusOneIsNoAnchor",
     {{Position(-1), Position(500), Position(600)}, {Position(-1), Position(500)}}},
    {"DistancesWrapAtThirtyTwoBits",
     {{Position(INT_MAX), Position(INT_MIN + 179999)},
      {Position(INT_MAX), Beat(INT_MIN + 179999, 180000)}}},
    {"PositionBelowTheHeartbeatIsRemembered",
     {{Position(1000), Position(2000), {TY_EVENT_SEEK, 9}},
      {Position(1000), {TY_EVENT_SEEK, 2000, 9}}}},
    {"PositionsBetweenPauseAndResumeAreIgnoredAndThePauseForgetsTheAnchor",
     {{Position(1000),
       {TY_EVENT_PAUSE, 1},
       Position(5000),
       kResume,
       {TY_EVENT_SEEK, 2},
       Position(6000, 3)},
      {Position(1000),
       {TY_EVENT_PAUSE, 1000, 1},
       kResume,
       {TY_EVENT_SEEK, 1000, 2},
       Position(6000, 3)}}},
    {"SeekCompleteRecordsTheNextPositionAndKeepsTheAnchor",
     {{Position(1000), kSeekComplete, Position(50000), Position(181000)},
      {Position(1000), kSeekComplete, Position(50000), Beat(181000, 180000)}}},
    {"SeekCompleteWaitsForAPositionThatIsNotIgnored",
     {{Position(1000), kSeekComplete, kPause, Position(40000), kResume, Position(50000),
       Position(60000)},
      {Position(1000), kSeekComplete, {TY_EVENT_PAUSE, 1000}, kResume, Position(50000)}}},
    {"SecondPlaybackKnowsNeitherPositionNorPauseNorFrame",
     {{Position(5000), kPause, kStop, kStart, Position(7000), kSeek, kRender, Position(9000)},
      {Position(5000),
       {TY_EVENT_PAUSE, 5000},
       {TY_EVENT_STOP, 5000},
       {TY_EVENT_START, -1},
       {TY_EVENT_SEEK, -1},
       kRender,
       Position(9000)}}},
};
INSTANTIATE_TEST_SUITE_P(Table, CRenderingPlaybackTest, testing::ValuesIn(kRenderingRules),
                         kByName);

TEST_F(CEventsTest, EventsBeforeAStartAreDropped) {
    SetContent();
    for (int event = TY_EVENT_STOP; event <= TY_EVENT_SEEK_COMPLETE; ++event) {
        Event(event);
        EXPECT_TRUE(Error("Do not start play, so do not collect data " + std::to_string(event)));
    }
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CEventsTest, StartCarriesTheContentsStartTime) {
    SetContent("film.mp4", "Film", 4711);
    Event(TY_EVENT_START, 1, 2);
    EXPECT_TRUE(Debug("[EXCUTE] event type : 1"));
    EXPECT_EQ(ReportedEvents(), (Reports{{TY_EVENT_START, 4711, 2}}));
}

TEST_F(CEventsTest, RenderStartOfASecondPlaybackIsNotRepeated) {
    StartRendering();
    ReportAll({kStop, kStart, kRender});
    EXPECT_TRUE(NotLogged("[EXCUTE] event type : 205"));
}

TEST_F(CEventsTest, ContentSetDuringAPlaybackDoesNotMoveTheAnchor) {
    StartRendering();
    Event(TY_EVENT_PLAYBACK_TIME, 0);
    SetContent("film.mp4", "Film", 1000000);
    m_nBeginning = 2;
    Expect({{Position(180000)}, {Position(0), Beat(180000, 180000)}});
}

// One thread reports positions while another pauses. Without an anchor there is no jump from it.
TEST_F(CEventsTest, PauseConcurrentWithAPositionIsNoJump) {
    StartRendering();
    std::atomic<bool> done = false;
    std::thread reporter([&] {
        while (!done) {
            Event(TY_EVENT_PLAYBACK_TIME, 200000);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        ReportAll({kPause, kResume});
    }
    done = true;
    reporter.join();
    EXPECT_THAT(ReportedEvents(), testing::Not(testing::Contains(Jump(200000, -1))));
}

struct Network {
    bool gateway;
    int type;
    int rssiResult;
    /// The second parameter of a BUFFERING_START that was reported with 4.
    int param2;
    int networkType;
};
using CBufferingTest = CTableTest<CEventsTest, Network>;

TEST_P(CBufferingTest, StartCarriesTheSignalStrengthOnWifiOnly) {
    m_Platform.gatewayConnected = Case().gateway;
    m_Platform.connectionType = Case().type;
    m_Platform.rssiResult = Case().rssiResult;
    StartPlayback();
    Event(TY_EVENT_BUFFERING_START, 3, 4);
    const TYMediaData record = Reported().at(1);
    EXPECT_EQ(record.param2, Case().param2);
    EXPECT_EQ(record.networkType, Case().networkType);
    EXPECT_EQ(m_Platform.Calls("wifi_manager_initialize"), Case().networkType == 2 ? 1U : 0U);
}

const Named<Network> kNetworks[] = {
    {"OnWifi", {true, CONNECTION_TYPE_WIFI, 0, -55, 2}},
    {"OnWifiThatCannotBeRead", {true, CONNECTION_TYPE_WIFI, -1, -200, 2}},
    {"Disconnected", {false, 0, 0, 4, 0}},
    {"OnACellularNetwork", {true, CONNECTION_TYPE_CELLULAR, 0, 4, 255}},
    {"OnEthernet", {true, CONNECTION_TYPE_ETHERNET, 0, 4, 1}},
};
INSTANTIATE_TEST_SUITE_P(Table, CBufferingTest, testing::ValuesIn(kNetworks), kByName);

TEST_F(CEventsTest, ErrorBeforeAnyContentIsDropped) {
    Collector().SendMediaError(kFreeError);
    EXPECT_TRUE(Error("Do not start play and url is empty. drop event 31"));
    EXPECT_THAT(Reported(), IsEmpty());
}

TEST_F(CEventsTest, ErrorBeforeAStartNeedsAUrlWhichMayBeEmptyAndStartsNoPlayback) {
    SetContent("", "Title");
    Collector().SendMediaError(kFreeError);
    EXPECT_TRUE(Error("Do not start play, but collect error event 31"));
    EXPECT_TRUE(Error("[EXCUTE] error type : 31"));
    Event(TY_EVENT_STOP);
    const auto records = Reported();
    EXPECT_EQ(ToReports(records), (Reports{{kFreeError}}));
    EXPECT_EQ(records[0].playbackID[0], '\0');
    EXPECT_THAT(SentUrls(), testing::ElementsAre(""));
}

TEST_F(CEventsTest, ErrorDuringAPlaybackCarriesItsIdentifierAndTheLowByteOfItsCode) {
    StartPlayback();
    Collector().SendMediaError(kFreeError);
    Collector().SendMediaError(static_cast<TY_ERROR_TYPE>(301));
    EXPECT_TRUE(Error("[EXCUTE] error type : 31"));
    EXPECT_TRUE(NotLogged("Do not start play, but collect error event 31"));
    const auto records = Reported();
    EXPECT_EQ(ToReports(records), (Reports{kStart, {kFreeError}, {301 - 256}}));
    EXPECT_STREQ(records[1].playbackID, records[0].playbackID);
}

TEST_F(CEventsTest, PlaybackIsNamedAfterItsThreadSecondAndNanosecondInTwentyFourCharacters) {
    SetContent();
    const std::tuple<pid_t, int, const char*> starts[] = {
        {77, 5, "000770001000000000000005"}, {4194303, 123456789, "419430300010000001234567"}};
    for (const auto& [thread, nanosecond, identifier] : starts) {
        m_Clock.SetRealTime(kNow, nanosecond);
        std::thread([this, id = thread] {
            t_ThreadId = id;
            ReportAll({kStart, kStop});
        }).join();
        EXPECT_TRUE(Debug(std::string("TY_EVENT_START playbackID is ") + identifier));
    }
    const auto records = Reported();
    for (const std::size_t i : {0U, 1U}) {
        EXPECT_EQ(std::string(records.at(2 * i).playbackID, 25),
                  std::string(std::get<2>(starts[i]), 25));
    }
}

TEST_F(CEventsTest, PlaybackIsNamedWithZerosIfTheClockFails) {
    SetContent();
    m_Clock.FailRealTime(true);
    Event(TY_EVENT_START);
    EXPECT_EQ(Reported().at(0).playbackID + 5, std::string(19, '0'));
}

TEST_F(CEventsTest, PlaybackKeepsItsNameForASecondStartAndTheNextHasAnotherWithTheSameContent) {
    StartPlayback();
    m_Clock.SetRealTime(2 * kNow, 7);
    ReportAll({kStart, kStop, kStart});
    const auto records = Reported();
    const std::string first = records.at(0).playbackID;
    EXPECT_EQ(records.at(1).playbackID, first);
    EXPECT_TRUE(Error("start called more than two, so collect TY_ERROR_DUPLICATED_START " + first));
    EXPECT_STREQ(records.at(3).playbackID + 5, "0002000000000000007");
    EXPECT_STREQ(records.at(3).content.title, "Film");
    EXPECT_EQ(SentUrls().back(), "film.mp4");
}

}  // namespace
