// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CommandFixture.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::SizeIs;

using Words = std::vector<std::string>;

// All rows as CSV, with the cells of a JSON object.
std::vector<Words> CsvOf(const nlohmann::ordered_json& rows) {
    std::vector<Words> csv;
    for (const auto& row : rows) {
        csv.emplace_back();
        for (const auto& cell : row) {
            const bool isEmpty = cell.is_null() || cell == nlohmann::ordered_json::array();
            csv.back().push_back(cell.is_string() ? cell.get<std::string>()
                                                  : (isEmpty ? "" : cell.dump()));
        }
    }
    return csv;
}

class Formats : public CCommandTest {
  protected:
    std::string Output(Words command, const std::string& format) const {
        command.insert(command.end(), {"--format", format});
        const Result result = Run(command);
        EXPECT_EQ(result.code, 0) << result.err;
        return result.out;
    }
    void ExpectSameRows(const Words& command) const {
        const auto rows = nlohmann::ordered_json::parse(Output(command, "json"));
        ASSERT_FALSE(rows.empty());
        auto lines = LinesOf(Output(command, "jsonl"));
        EXPECT_EQ(nlohmann::json::parse(lines.back()).at("rows"), rows.size());
        lines.pop_back();
        ASSERT_THAT(lines, SizeIs(rows.size()));
        EXPECT_EQ(nlohmann::ordered_json::parse(lines.back()), rows.back());
        auto csv = ParseCsv(Output(command, "csv"));
        csv.erase(csv.begin());
        // Without the end of an export.
        csv.resize(rows.size());
        EXPECT_EQ(csv, CsvOf(rows));
        EXPECT_FALSE(Output(command, "table").empty());
    }
};

TEST_F(Formats, HaveTheSameRowsInEveryCommand) {
    Store({}, WholePlayback());
    ASSERT_EQ(Run({"policy", "set", "a", "0"}).code, 0);
    m_Folder.Write("images", Run({"records", "--raw"}).out);
    for (const Words& command : std::vector<Words>{{"records"},
                                                   {"export"},
                                                   {"show", "--last"},
                                                   {"decode", File("images")},
                                                   {"playbacks"},
                                                   {"stats"},
                                                   {"policy", "list"}}) {
        SCOPED_TRACE(command[0]);
        ExpectSameRows(command);
    }
}

TEST_F(Formats, HaveOneShapeOfARecord) {
    Store({}, WholePlayback());
    const auto records = RunForJson({"records"});
    EXPECT_EQ(RunForJson({"export"}), records);
    auto shown = RunForJson({"show", "--last"});
    for (auto& row : shown) {
        for (const char* pAdded : {"offset_ms", "watched_media_ms", "startup_ms", "stalls",
                                   "stalled_ms", "errors", "end", "stop_reason"}) {
            EXPECT_EQ(row.erase(pAdded), 1U) << pAdded;
        }
    }
    EXPECT_EQ(shown, records);
    // An image lacks what the service added.
    m_Folder.Write("images", Run({"records", "--raw"}).out);
    auto expected = records;
    for (auto& row : expected) {
        for (const char* pAdded : {"id", "arrival", "sender", "uid", "pid", "url", "url_cut"}) {
            row[pAdded] = nullptr;
        }
    }
    EXPECT_EQ(RunForJson({"decode", File("images")}), expected);
}

TEST_F(Formats, NameTypesBesideTheirNumbers) {
    TYMediaData record = RecordOf({}, {0, 77});
    record.playerID = static_cast<std::int8_t>(200);
    record.networkType = static_cast<std::uint8_t>(TY_NETWORK_UNKNOWN);
    record.content.drmType = static_cast<std::uint8_t>(TY_DRM_NOT_SET);
    record.content.contentType = 57;
    StoreBatch({record}, {"u"});
    m_Folder.Write("image", Run({"records", "--raw"}).out);
    const auto expected = nlohmann::json::parse(R"({
        "player": "200", "player_id": 200, "network": "unknown", "network_type": -1,
        "drm": "not_set", "drm_type": -1, "content": "57", "content_type": 57,
        "event": "77", "kind": "free-form", "code": 77})");
    for (const Words& command :
         std::vector<Words>{{"records"}, {"show", "--last"}, {"decode", File("image")}}) {
        auto row = RunForJson(command).at(0);
        for (const auto& [name, value] : expected.items()) {
            EXPECT_EQ(row.at(name), value) << command[0] << " " << name;
        }
    }
}

TEST_F(Formats, OfACheckListItsFindings) {
    Store({}, WholePlayback());
    EXPECT_EQ(Output({"check"}, "json"), "[]\n");
    EXPECT_EQ(Output({"check"}, "jsonl"), "{\"end\":true,\"rows\":0}\n");
    EXPECT_EQ(Output({"check"}, "table"), "no damage in 19 records\n");
    Execute("UPDATE playbacks SET records = 7");
    const Result result = Run({"check", "--format", "json"});
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.out,
              "[\n{\"damage\":\"playbacks with totals that differ from their records: 1, the first "
              "is 1\"}\n]\n");
}

TEST_F(Formats, OfFollowedRecordsEndEachRowWithItsLine) {
    for (const char* pFormat : {"json", "jsonl", "csv", "table"}) {
        Store({.url = "https://first"}, {{0, TY_EVENT_START}});
        CProgram command(Command({"records", "-f", "-n", "1", "--format", pFormat}));
        EXPECT_TRUE(command.Prints("https://first"));
        EXPECT_THAT(command.Out(), EndsWith("\n")) << pFormat;
        Store({.url = "https://second"}, {{0, TY_EVENT_STOP}});
        EXPECT_TRUE(command.Prints("https://second"));
        EXPECT_THAT(command.Out(), EndsWith("\n")) << pFormat;
        command.Signal(SIGINT);
        EXPECT_EQ(command.Finish().code, 0);
    }
}

TEST_F(Formats, NeutraliseFormulasBehindOtherSeparatorsAndInFullWidth) {
    const std::pair<std::string, std::string> titles[] = {{"x;=A(1);y", "x;'=A(1);y"},
                                                          {"x\t+1", "x\t'+1"},
                                                          {"x;\"=1\"", "x;'\"=1\""},
                                                          {"x; =1", "x;' =1"},
                                                          {"＝1+1", "'＝1+1"},
                                                          {"a;b;c=1", "a;b;c=1"},
                                                          {";", ";"}};
    for (const auto& [title, expected] : titles) {
        Store({.title = title}, {{0, TY_EVENT_START}});
    }
    const auto rows = ParseCsv(Run({"records", "--safe-csv"}).out);
    std::size_t row = rows.size() - std::size(titles);
    for (const auto& [title, expected] : titles) {
        EXPECT_EQ(CsvCell(rows, "title", row++), expected);
    }
}

TEST_F(Formats, NeutraliseFormulasInCsvOnRequest) {
    const char* titles[] = {"=1+1", "+1", "-1", "@SUM(A1)", "\t1", "\r=1", "a=1", "=\"x\""};
    for (const char* pTitle : titles) {
        Store({.title = pTitle}, {{0, TY_EVENT_START, -7}});
    }
    for (const Words& options :
         std::vector<Words>{{"--safe-csv"}, {"--format", "csv", "--safe-csv"}}) {
        Words command = {"export"};
        command.insert(command.end(), options.begin(), options.end());
        const auto rows = ParseCsv(Run(command).out);
        for (std::size_t i = 0; i < std::size(titles); ++i) {
            const std::string title = titles[i];
            EXPECT_EQ(CsvCell(rows, "title", i + 1), (title[0] == 'a' ? "" : "'") + title);
            EXPECT_EQ(CsvCell(rows, "param1", i + 1), "-7");
        }
    }
    EXPECT_THAT(Output({"export"}, "csv"), HasSubstr(",=1+1,"));
    EXPECT_EQ(Run({"export", "--safe-csv", "--format", "json"}).code, 2);
}

}  // namespace
