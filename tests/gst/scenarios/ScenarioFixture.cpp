// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ScenarioFixture.h"

#include <ctime>

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace {

// Of "2026-11-21T04:09:50.030Z".
double SecondsSinceEpoch(const std::string& text) {
    std::tm tm{};
    const char* pRest = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    if (pRest == nullptr) {
        throw std::runtime_error("no time: " + text);
    }
    return static_cast<double>(timegm(&tm)) + std::strtod(pRest, nullptr);
}

std::string NameOf(const json& row) {
    if (row.at("code") < 206) {
        return row.at("event");
    }
    return row.at("custom_info").get<std::string>().empty() ? "ERROR" : "DETAILS";
}

std::string Replaced(std::string text, const std::string& address) {
    if (const auto at = text.find('@'); at != std::string::npos) {
        text.replace(at, 1, address);
    }
    return text;
}

}  // namespace

void ExpectSame(const std::vector<Span>& actual, const std::vector<Span>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_NEAR(actual[i].begin, expected[i].begin, kTolerance) << "begin of " << i;
        EXPECT_NEAR(actual[i].end, expected[i].end, kTolerance) << "end of " << i;
        EXPECT_NEAR(actual[i].Length(), expected[i].Length(), kTolerance) << "length of " << i;
    }
}

CPlayback::CPlayback(const json& rows) {
    for (const json& row : rows) {
        m_Events.push_back({NameOf(row), SecondsSinceEpoch(row.at("time")), 0, row.at("param1"),
                            row.at("param2"), row});
    }
    auto first = std::ranges::find(m_Events, "RENDER_START", &Event::name);
    if (first == m_Events.end()) {
        first = m_Events.begin();
    }
    for (const double zero = first->at; Event & event : m_Events) {
        event.time = event.at - zero;
    }
}

std::string CPlayback::Story() const {
    static const std::set<std::string> names = {
        "START", "RENDER_START", "PAUSE",         "RESUME",          "SEEK",
        "STOP",  "ERROR",        "SEEK_COMPLETE", "BUFFERING_START", "BUFFERING_END"};
    std::string story;
    for (const Event& event : m_Events) {
        if (names.contains(event.name)) {
            story += (story.empty() ? "" : " ") + event.name;
        }
    }
    return story;
}

std::vector<Span> CPlayback::Spans(const std::string& from, const std::string& to) const {
    std::vector<Span> spans;
    for (const Event& event : m_Events) {
        if (event.name == from) {
            spans.push_back({event.time, event.time});
        } else if (event.name == to && !spans.empty()) {
            spans.back().end = event.time;
        }
    }
    return spans;
}

std::vector<Event> CPlayback::Sizes() const {
    std::vector<Event> sizes = All("RENDITION");
    const auto same = [](const Event& a, const Event& b) { return a.param2 == b.param2; };
    sizes.erase(std::unique(sizes.begin(), sizes.end(), same), sizes.end());
    return sizes;
}

void CScenarioTest::Start(const std::string& plan) {
    m_Folder.Write("regdb.ini", "[db/tallyra]\nlog_on=1\n");
    setenv("REGDB_FILE", (m_Folder.Path() / "regdb.ini").c_str(), 1);
    setenv("LOGSVC_OUTPUT", "stderr", 1);
    setenv("LOGSVC_LEVEL", "error", 1);
    setenv("GST_REGISTRY", REGISTRY, 1);
    m_Bus.BecomeSystemBus();
    m_File = m_Folder.Path() / ("store" + std::to_string(++m_nAttempts) + ".db");
    m_pService = std::make_unique<CServiceProcess>(TALLYRA_SERVICE, m_Bus.Address(),
                                                   std::vector<std::string>{"--db", m_File});
    m_pService->WaitUntilReady();
    m_pServer =
        std::make_unique<CProgram>(std::vector<std::string>{"python3", MEDIA_SERVER, MEDIA, plan});
    if (!m_pServer->Prints("\n")) {
        throw std::runtime_error("the server does not start: " + m_pServer->Errors());
    }
    m_Port = LinesOf(m_pServer->Out())[0];
}

void CScenarioTest::Finish(const std::vector<std::string>& player) {
    const Result result = RunProgram(player);
    ASSERT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(result.err, Not(HasSubstr("CRITICAL"))) << "GLib's word for a wrong call";
    m_pService->Terminate();
    m_Records = Read({"records", "--utc", "--limit", "-1"});
    m_Printed = RunProgram({TALLYRA_COMMAND, "records", "--db", m_File}).out + result.err;
    m_Truth.clear();
    for (const std::string& line : LinesOf(result.out)) {
        if (line.starts_with('{')) {
            m_Truth.push_back(json::parse(line));
        }
    }
}

bool CScenarioTest::HasUnplannedGap() const {
    return std::ranges::any_of(Gaps(), [](const Span& gap) { return gap.Length() < kPlanned; });
}

void CScenarioTest::Play(const std::string& plan, const std::string& file,
                         const std::vector<std::string>& options) {
    do {
        Start(plan);
        std::vector<std::string> player = {PLAYER, "--metronome"};
        for (const std::string& option : options) {
            player.push_back(Replaced(option, Address()));
        }
        player.push_back(Address() + "/" + file);
        ASSERT_NO_FATAL_FAILURE(Finish(player));
    } while ((WasLate() || HasUnplannedGap()) && m_nAttempts < kAttempts);
    if (WasLate()) {
        GTEST_SKIP() << "the machine is too busy to play in time";
    }
}

void CScenarioTest::PlayUnmodified(const std::string& file) {
    Start("{}");
    setenv("GST_TRACERS", "tallyra", 1);
    setenv("GST_PLUGIN_PATH", PLUGINS, 1);
    ASSERT_NO_FATAL_FAILURE(Finish({"gst-play-1.0", "--no-interactive", "--use-playbin3",
                                    "--videosink=fakesink sync=true",
                                    "--audiosink=fakesink sync=true", Address() + "/" + file}));
}

// A failed scenario cannot be understood without what the viewer saw and what was stored.
void CScenarioTest::TearDown() {
    if (!HasFailure()) {
        return;
    }
    for (const json& line : m_Truth) {
        std::cout << line << '\n';
    }
    std::cout << m_Printed << m_pServer->Out();
}

void CScenarioTest::StartDisplay() {
    m_pDisplay = std::make_unique<CProgram>(
        std::vector<std::string>{"Xvfb", "-displayfd", "1", "-screen", "0", "640x480x24"});
    if (!m_pDisplay->Prints("\n")) {
        throw std::runtime_error("Xvfb does not start: " + m_pDisplay->Errors());
    }
    setenv("DISPLAY", (":" + LinesOf(m_pDisplay->Out())[0]).c_str(), 1);
}

json CScenarioTest::Read(std::vector<std::string> command) const {
    command.insert(command.begin(), TALLYRA_COMMAND);
    command.insert(command.end(), {"--db", m_File, "--format", "json"});
    const Result result = RunProgram(command);
    EXPECT_EQ(result.code, 0) << result.err;
    return json::parse(result.out);
}

CPlayback CScenarioTest::Playback(std::size_t count, std::size_t index) const {
    std::vector<std::string> order;
    std::map<std::string, json> rows;
    for (const json& row : m_Records) {
        const std::string playback = row.at("playback");
        if (!rows.contains(playback)) {
            order.push_back(playback);
        }
        rows[playback].push_back(row);
    }
    if (order.size() != count) {
        throw std::runtime_error(std::to_string(order.size()) + " playbacks");
    }
    return CPlayback(rows[order[index]]);
}

// The first picture, the first sound if there is no picture, or the start if there is neither.
double CScenarioTest::Zero() const {
    for (const char* pWhat : {"picture", "sound"}) {
        const auto first = std::ranges::find_if(
            m_Truth, [pWhat](const json& line) { return line.at("what") == pWhat; });
        if (first != m_Truth.end()) {
            return first->at("at");
        }
    }
    return m_Truth.at(0).at("at");
}

std::vector<json> CScenarioTest::Said(const std::string& what) const {
    const double zero = Zero();
    std::vector<json> said;
    for (json line : m_Truth) {
        if (line.at("what") == what) {
            line["time"] = line.at("at").get<double>() - zero;
            said.push_back(line);
        }
    }
    return said;
}

std::vector<Span> CScenarioTest::Gaps() const {
    std::vector<Span> gaps;
    for (const json& gap : Said("gap")) {
        const double begin = gap.at("time");
        gaps.push_back({begin, begin + gap.at("to").get<double>() - gap.at("at").get<double>()});
    }
    return gaps;
}

std::vector<Span> CScenarioTest::Pauses(const std::string& why) const {
    std::vector<Span> pauses;
    for (const json& call : Said("call")) {
        if (call.at("why") == why && call.at("state") == "PAUSED") {
            pauses.push_back({call.at("time"), call.at("time")});
        } else if (call.at("why") == why && !pauses.empty()) {
            pauses.back().end = call.at("time");
        }
    }
    return pauses;
}

std::vector<int> CScenarioTest::SizesSeen() const {
    std::vector<int> sizes;
    for (const json& size : Said("size")) {
        sizes.push_back(TYFrameSize(size.at("width"), size.at("height")));
    }
    return sizes;
}

void CScenarioTest::ExpectStory(const CPlayback& playback, const std::string& story,
                                int reason) const {
    EXPECT_EQ(playback.Story(), story);
    EXPECT_NEAR(playback.One("START").time, When("call"), kTolerance) << "start-up";
    EXPECT_EQ(playback.One("STOP").param2, reason);
}

void CScenarioTest::ExpectStalls(const CPlayback& playback, int cause) const {
    ExpectSame(playback.Spans("BUFFERING_START", "BUFFERING_END"), Gaps());
    for (const Event& end : playback.All("BUFFERING_END")) {
        EXPECT_EQ(end.param2, cause);
    }
}

void CScenarioTest::ExpectRenditions(const CPlayback& playback) const {
    const auto sizes = playback.Sizes();
    const auto seen = Said("size");
    ASSERT_EQ(sizes.size(), seen.size());
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(sizes[i].param2, SizesSeen()[i]) << "rendition " << i;
        EXPECT_NEAR(sizes[i].time, seen[i].at("time"), kTolerance) << "rendition " << i;
    }
}
