// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

#include <ctime>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::int64_t kDay = 86'400 * kSecond;
/// 2026-11-21T06:30:15.250Z
constexpr std::int64_t kInstant = 1'795'242'615'250'000'000;
/// Central Europe: summer time from March 29th to October 25th 2026, changed at 01:00 UTC.
constexpr const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

class Times : public CCommandTest {
  protected:
    void SetUp() override { const CTYStore store(Db()); }

    Result RunIn(const char* pZone, std::vector<std::string> arguments) const {
        arguments = Command(std::move(arguments));
        arguments.insert(arguments.begin(), {"env", std::string("TZ=") + pZone});
        return RunProgram(arguments);
    }
    // Expects that a text stands for this moment: what arrived then is selected, and what arrived
    // a nanosecond earlier is not.
    void Expect(const std::vector<std::string>& since, std::int64_t moment,
                const char* pZone = kCentralEurope) {
        SCOPED_TRACE(testing::PrintToString(since));
        Execute("DELETE FROM runs");
        Store({}, {{0, TY_EVENT_START}}, moment - 1);
        Store({}, {{0, TY_EVENT_STOP}}, moment);
        std::vector<std::string> command = {"records", "--format", "json", "--since"};
        command.insert(command.end(), since.begin(), since.end());
        const Result result = RunIn(pZone, command);
        ASSERT_EQ(result.code, 0) << result.err;
        EXPECT_THAT(Each<int>(nlohmann::json::parse(result.out), "code"),
                    ElementsAre(int{TY_EVENT_STOP}));
    }
};

TEST_F(Times, AreReadInManyForms) {
    const std::vector<std::vector<std::string>> forms = {
        {"2026-11-21T06:30:15.250Z"},
        {"2026-11-21 06:30:15.25"},
        {"2026-11-21T06:30:15.250000000Z"},
        {"2026-11-21T07:30:15.250+01:00"},
        {"2026-11-21 07:30:15.250 +0100"},
        {"2026-11-20T21:00:15.250-09:30"},
        {"2026-11-21 07:30:15.250", "--local"},
        {"2026-11-21 06:30:15.250", "--utc"},
        {"2026-11-21 06:30:15.250Z", "--local"},
        {"2026-11-21 06:30:15.250 UTC", "--local"}};
    for (const auto& form : forms) {
        Expect(form, kInstant);
    }
    const std::int64_t minute = kInstant - kInstant % (60 * kSecond);
    Expect({"2026-11-21 06:30"}, minute);
    Expect({"@" + std::to_string(minute / kSecond)}, minute);
    Expect({"1969-12-31T23:59:59.500Z"}, -kSecond / 2);
}

TEST_F(Times, MayBeDatesWhichBeginAtMidnight) {
    Expect({"2026-11-21"}, 1'795'219'200 * kSecond);
    Expect({"2026-11-21", "--local"}, 1'795'215'600 * kSecond);
    Expect({"2026-07-01", "--local"}, 1'782'856'800 * kSecond);
    // Where summer time begins at midnight, the day begins at one.
    Expect({"2026-03-29", "--local"}, 1'774'738'800 * kSecond, "ABC-1ABCD,M3.5.0/0,M10.5.0/3");
}

TEST_F(Times, ThatOccurTwiceAreTheFirst) {
    Expect({"2026-10-25 02:30", "--local"}, 1'792'888'200 * kSecond);
    Expect({"2026-10-25 03:30", "--local"}, 1'792'895'400 * kSecond);
}

TEST_F(Times, MayBeRelative) {
    const std::int64_t now = WallClockNow();
    const std::int64_t today = now - now % kDay;
    if (now + 60 * kSecond > today + kDay) {
        GTEST_SKIP() << "midnight is near";
    }
    Expect({"today"}, today);
    Expect({"yesterday"}, today - kDay);
    Expect({"today", "--local"},
           today - 3 * 3600 * kSecond + (now % kDay / kSecond >= 75'600 ? kDay : 0), "ABC-3");
    Execute("DELETE FROM runs");
    Store({}, {{0, TY_EVENT_START}}, WallClockNow() - 3600 * kSecond);
    for (const char* pAge : {"2h", "-2h", "119m", "1w", "3700s", "-1d"}) {
        EXPECT_THAT(RunForJson({"records", "--since", pAge, "--until", "59m"}), testing::SizeIs(1))
            << pAge;
    }
    EXPECT_THAT(RunForJson({"records", "--since", "now"}), testing::IsEmpty());
    EXPECT_THAT(RunForJson({"records", "--until", "now", "--since", "61m"}), testing::SizeIs(1));
}

const std::vector<std::vector<std::string>> kRefused = {{"2026-02-29"},
                                                        {"2026-02-30T10:00Z"},
                                                        {"2026-13-01"},
                                                        {"2026-00-10"},
                                                        {"2026-11-21T25:00"},
                                                        {"2026-11-21T24:00Z"},
                                                        {"2026-11-21 07:60"},
                                                        {"2026-11-21T07:30:60Z"},
                                                        {"2026-11-21T07:30+15:00"},
                                                        {"2026-11-21T07:30+0"},
                                                        {"2026-11-21T07:30Z+01:00"},
                                                        {"2026-03-29 02:30", "--local"},
                                                        {"2026-11-21T"},
                                                        {"26-11-21"},
                                                        {"tomorrow"},
                                                        {"--2h"},
                                                        {"2y"},
                                                        {"99999999999d"},
                                                        {"9999-01-01"},
                                                        {""},
                                                        {"@-1"}};

TEST_F(Times, ThatDoNotExistAreRefused) {
    Store({}, {{0, TY_EVENT_START}});
    for (const auto& time : kRefused) {
        std::vector<std::string> command = {"records", "--since"};
        command.insert(command.end(), time.begin(), time.end());
        const Result result = RunIn(kCentralEurope, command);
        EXPECT_EQ(result.code, 2) << testing::PrintToString(time);
        EXPECT_THAT(result.err, testing::AnyOf(HasSubstr("--since: not a time: " + time[0] + ";"),
                                               HasSubstr("--since: there is no such time: ")));
    }
    EXPECT_THAT(Run({"records", "--since", "2026-02-30"}).err,
                HasSubstr("--since: there is no such time: 2026-02-30\n"));
    EXPECT_THAT(RunIn(kCentralEurope, {"records", "--local", "--since", "2026-03-29 02:30"}).err,
                HasSubstr("a change to summer time, skips it"));
    EXPECT_THAT(Run({"records", "--since", "tomorrow"}).err, HasSubstr("not a time: tomorrow;"));
    // The same in UTC does exist.
    EXPECT_EQ(RunIn(kCentralEurope, {"records", "--since", "2026-03-29 02:30"}).code, 0);
    EXPECT_EQ(RunIn(kCentralEurope, {"records", "--utc", "--local"}).code, 2);
}

TEST_F(Times, ArePrintedInUtcOrInLocalTimeWithItsOffset) {
    Store({}, {{0, TY_EVENT_START}}, kInstant);
    const auto cells = [this](const char* pZone, std::vector<std::string> more) {
        more.insert(more.begin(), {"records", "--format", "csv"});
        const auto rows = ParseCsv(RunIn(pZone, more).out);
        return std::vector{CsvCell(rows, "arrival"), CsvCell(rows, "time")};
    };
    EXPECT_THAT(cells(kCentralEurope, {}),
                ElementsAre("2026-11-21T06:30:15.250Z", "2026-11-21T04:09:50.000Z"));
    EXPECT_THAT(cells(kCentralEurope, {"--local"}),
                ElementsAre("2026-11-21T07:30:15.250+01:00", "2026-11-21T05:09:50.000+01:00"));
    EXPECT_THAT(cells("NST3:30", {"--local"}),
                ElementsAre("2026-11-21T03:00:15.250-03:30", "2026-11-21T00:39:50.000-03:30"));
    EXPECT_THAT(RunIn(kCentralEurope, {"playbacks", "--local"}).out,
                HasSubstr("2026-11-21T05:09:50.000+01:00"));
}

TEST_F(Times, ThatAnyCommandPrintsAreTakenByEveryCommand) {
    Store({}, WholePlayback(), WallClockNow());
    ASSERT_EQ(Run({"policy", "set", "a", "0"}).code, 0);
    const std::pair<std::vector<std::string>, const char*> printed[] = {
        {{"records"}, "time"},
        {{"records"}, "arrival"},
        {{"playbacks"}, "start"},
        {{"export"}, "arrival"},
        {{"show", Script().playback}, "time"},
        {{"policy", "list"}, "changed"}};
    for (const auto& [command, column] : printed) {
        for (const char* pZone : {"--utc", "--local"}) {
            std::vector<std::string> whole = command;
            whole.insert(whole.end(), {pZone, "--format", "json"});
            const Result result = RunIn(kCentralEurope, whole);
            const std::string time = nlohmann::json::parse(result.out).at(0).at(column);
            EXPECT_EQ(Run({"records", "--since", time}).code, 0) << time;
            EXPECT_EQ(Run({"playbacks", "--until", time}).code, 0) << time;
            EXPECT_EQ(Run({"export", "--since", time}).code, 0) << time;
        }
    }
}

TEST_F(Times, MeanTheArrivalOrTheRecordsOwnTime) {
    Store({}, {{0, TY_EVENT_START}, {5000, TY_EVENT_STOP}}, 100 * kSecond);
    const std::string middle = "@" + std::to_string(kStartSecond + 5);
    EXPECT_THAT(RunForJson({"records", "--since", middle}), testing::IsEmpty());
    EXPECT_THAT(Each<int>(RunForJson({"records", "--since", middle, "--by-record-time"}), "id"),
                ElementsAre(2));
    EXPECT_THAT(Each<int>(RunForJson({"records", "--until", middle, "--by-record-time"}), "id"),
                ElementsAre(1));
    EXPECT_THAT(Run({"records", "--help"}).out, HasSubstr("arrived at or after this time"));
}

}  // namespace
