// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// What a player sees of a service that misbehaves, and what the service writes. The player's
// program prints a line for each of its playbacks, and the errors that the library logs.

#include "Program.h"
#include "TableTest.h"

#include <nlohmann/json.hpp>

using Json = nlohmann::ordered_json;
using testing::ElementsAre;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;
using testing::SizeIs;

namespace {

using Words = std::vector<std::string>;

constexpr const char* kAccepted = "playback .: queued, accepted after [0-9.]+ s";
constexpr const char* kRefused = "playback .: queued, not accepted after [0-9.]+ s";
constexpr const char* kOff = "playback .: not collected, not accepted after [0-9.]+ s";

/// A service with options, on whose bus a player plays a number of times.
class CTestServiceTest : public testing::Test {
  protected:
    Words Play(Words options, int playbacks) {
        options.insert(options.begin(), {TESTSERVICE, "--output", File(), "--timeout", "60"});
        options.insert(options.end(), {"--run", PLAYER, std::to_string(playbacks)});
        const Result result = RunProgram(options);
        EXPECT_EQ(result.code, 0) << result.err;
        return LinesOf(result.out);
    }
    std::string File() const { return m_Folder.Path() / "records.jsonl"; }
    /// @return the records, without the last line, which has to count them
    std::vector<Json> Records() const {
        std::vector<Json> records;
        for (const std::string& line : LinesOf(m_Folder.Read("records.jsonl"))) {
            records.push_back(Json::parse(line));
        }
        EXPECT_EQ(records.back(), (Json{{"end", true}, {"rows", records.size() - 1}}));
        records.pop_back();
        return records;
    }

    CTemporaryFolder m_Folder;
};

/// Options, how often the player plays, what it prints, and how many records arrive.
struct Misbehaviour {
    Words options;
    std::vector<const char*> lines;
    int playbacks;
    std::size_t records;
};

class CMisbehaviourTest : public CTableTest<CTestServiceTest, Misbehaviour> {};

TEST_P(CMisbehaviourTest, HasItsEffectAndThePlayerEndsInOrder) {
    const Words lines = Play(Case().options, Case().playbacks);
    ASSERT_THAT(lines, SizeIs(Case().lines.size())) << testing::PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_THAT(lines[i], MatchesRegex(Case().lines[i]));
    }
    EXPECT_THAT(Records(), SizeIs(Case().records));
}

constexpr const char* kLost = "  SendData failed, data clear";
constexpr const char* kFailed = "  fail to send data.dbus fail.";
constexpr const char* kNoPolicy = "  fail to get policy.dbus fail.";
constexpr const char* kDropped = "  drop collected data";
constexpr const char* kUnanswered = "  CLIENT > Dbus error: Did not receive a reply.*";
constexpr const char* kLeft = "  CLIENT > Dbus error: Message recipient disconnected.*";
constexpr const char* kNull = "  REPLY IS NULL!";

const Named<Misbehaviour> kMisbehaviours[] = {
    {"None", {{}, {kAccepted, kAccepted}, 2, 4}},
    {"RefusedBatches", {{"--refuse"}, {kRefused, kLost, kRefused, kLost}, 2, 4}},
    {"RefusedBatchesAfterOne",
     {{"--refuse", "--after", "1"}, {kAccepted, kRefused, kLost, kRefused, kLost}, 3, 6}},
    {"MalformedReplies",
     {{"--malformed"},
      {kRefused, "  response empty", kFailed, kLost, kRefused, "  no api return value", kFailed,
       kLost, kRefused, "  Invalid response format", kLost, kRefused, "  Invalid response type",
       kLost},
      4,
      8}},
    {"SilenceAfterOne",
     {{"--silent", "--after", "1"},
      {kAccepted, "playback 2: queued, not accepted after [3-9][0-9.]+ s", kUnanswered, kNull,
       kFailed, kLost},
      2,
      4}},
    {"SlowReplies",
     {{"--slow", "1000"}, {"playback 1: queued, accepted after [1-9][0-9.]+ s"}, 1, 2}},
    {"RepliesThatAreTooSlow",
     {{"--slow", "8000"},
      {"playback 1: queued, not accepted after [3-9][0-9.]+ s", kUnanswered, kNull, kFailed, kLost},
      1,
      2}},
    {"LeavingAfterOne",
     {{"--gone", "--after", "1"}, {kAccepted, kRefused, kLeft, kNull, kFailed, kLost}, 2, 4}},
    {"RefusedApplication",
     {{"--refuse-application", "org.example.other", "--refuse-application", "org.example.kit"},
      {kOff, kDropped},
      1,
      0}},
    {"AllApplicationsRefused", {{"--refuse-application", "*"}, {kOff, kDropped}, 1, 0}},
    {"AnotherApplicationRefused",
     {{"--refuse-application", "org.example.other"}, {kAccepted}, 1, 2}},
    {"MalformedPolicy",
     {{"--on", "policy", "--malformed"}, {kOff, "  response empty", kNoPolicy, kDropped}, 1, 0}},
    {"PolicyAfterOneBatch",
     {{"--on", "policy", "--malformed", "--after", "1"},
      {kAccepted, kOff, "  response empty", kNoPolicy, kDropped},
      2,
      2}},
    {"SilenceFromTheStart",
     {{"--on", "all", "--silent"},
      {kOff, kUnanswered, kNull, kUnanswered, kNull, kNoPolicy, kDropped},
      1,
      0}},
};
INSTANTIATE_TEST_SUITE_P(Of, CMisbehaviourTest, testing::ValuesIn(kMisbehaviours), kByName);

TEST_F(CTestServiceTest, WritesWhatThePlayerReported) {
    Play({}, 1);
    const auto records = Records();
    ASSERT_THAT(records, SizeIs(2));
    const Json& second = records[1];
    EXPECT_EQ(second["id"], 2);
    EXPECT_THAT(second["arrival"].get<std::string>(), Ge(second["time"].get<std::string>()));
    EXPECT_THAT(second["sender"].get<std::string>(), MatchesRegex(":1\\.[0-9]+"));
    EXPECT_EQ(second["application"], "org.example.kit");
    EXPECT_EQ(second["version"], "1.0.0");
    EXPECT_EQ(second["playback"], records[0]["playback"]);
    EXPECT_EQ(second["player"], "native");
    EXPECT_EQ(second["network"], "ethernet");
    EXPECT_EQ(second["event"], "100");
    EXPECT_EQ(second["param1"], 1);
    EXPECT_EQ(second["title"], "Film");
    EXPECT_EQ(second["url"], "https://example.org/film.mpd");
    EXPECT_EQ(second["custom_info"], "text");
    EXPECT_EQ(records[0]["event"], "START");
    EXPECT_EQ(records[0]["what"], "from 0");
}

// A reader of exports reads both. Names and order are those of the command.
TEST_F(CTestServiceTest, WritesTheFieldsOfTheCommand) {
    Play({}, 1);
    const Result decoded =
        RunProgram({TALLYRA_COMMAND, "decode", "--format", "jsonl", "-"}, std::string(4800, '\0'));
    const Json theirs = Json::parse(LinesOf(decoded.out).at(0));
    const Json ours = Records().at(0);
    ASSERT_EQ(ours.size(), theirs.size());
    for (auto a = ours.begin(), b = theirs.begin(); a != ours.end(); ++a, ++b) {
        EXPECT_EQ(a.key(), b.key());
    }
}

TEST_F(CTestServiceTest, WritesToStandardOutputUnlessToldOtherwise) {
    const Result result = RunProgram({TESTSERVICE, "--run", PLAYER, "1"});
    const Words lines = LinesOf(result.out);
    ASSERT_THAT(lines, SizeIs(4));
    EXPECT_THAT(lines, testing::Contains(HasSubstr("\"event\":\"START\"")));
    EXPECT_EQ(lines.back(), "{\"end\":true,\"rows\":2}");
}

#ifdef EXAMPLE_PLAYER
// The example player knows nothing of the kit. Its platform would be the machine's.
TEST_F(CTestServiceTest, PreloadsThePlatformIntoAnyPlayer) {
    const Result result =
        RunProgram({"env", "TALLYRA_TESTPLATFORM_NETWORK=wifi", TESTSERVICE, "--platform",
                    "--output", File(), "--run", EXAMPLE_PLAYER, "--speed", "5000", RECORDING});
    EXPECT_EQ(result.code, 0) << result.err;
    const auto records = Records();
    ASSERT_THAT(records, Not(IsEmpty()));
    EXPECT_EQ(records[0]["network"], "wifi");
    EXPECT_EQ(records[0]["version"], "1.0.0");
}

// To the loader, a space in LD_PRELOAD separates names.
TEST_F(CTestServiceTest, PreloadsAPlatformWhosePathHasASpace) {
    const std::filesystem::path prefix = m_Folder.Path() / "with space";
    std::filesystem::create_directories(prefix / "bin");
    std::filesystem::create_directories(prefix / "lib");
    std::filesystem::copy(TESTSERVICE, prefix / "bin");
    std::filesystem::copy(TESTPLATFORM, prefix / "lib");
    const Result result = RunProgram(
        {"env", "TALLYRA_TESTPLATFORM_NETWORK=wifi", prefix / "bin/tallyra-testservice",
         "--platform", "--output", File(), "--run", EXAMPLE_PLAYER, "--speed", "5000", RECORDING});
    EXPECT_EQ(result.code, 0) << result.err;
    const auto records = Records();
    ASSERT_THAT(records, Not(IsEmpty()));
    EXPECT_EQ(records[0]["network"], "wifi");
}
#endif

}  // namespace
