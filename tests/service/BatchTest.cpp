// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HandlerFixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class Batch : public CHandlerTest {};

/// What the handler makes of a SendData call.
struct Outcome {
    const char* pRule;
    CCall call;
    const char* pAnswer;
    std::vector<std::string> urls;  ///< of the records stored, "none" for null
    const char* pError = nullptr;   ///< in the error line; null for no line
};

std::vector<std::string> Urls(int count, int missing = 0) {
    std::vector<std::string> urls;
    for (int i = 0; i < count; ++i) {
        urls.push_back("url" + std::to_string(i));
    }
    urls.insert(urls.end(), static_cast<std::size_t>(missing), "none");
    return urls;
}

CCall WithOtherIndices() {
    const TYMediaData record = MakeRecord(TY_EVENT_START);
    CCall call;
    call.Int(7).Int(1).Text("SendData").Int(1000).Int(2);
    call.Bytes({reinterpret_cast<const char*>(&record), sizeof(record)});
    return call.Int(-1).Int(1).Text("url0");
}

CCall Single(const TYMediaData& record) {
    return CCall::Of("SendData").Record(record).TextValue("url0");
}

std::vector<Outcome> Outcomes() {
    const char* pCount = "sent a different number of URLs than records";
    const char* pOrder = "a batch that is not images followed by URLs";
    const char* pSize = "sent an image of the wrong size: ";
    const TYMediaData start = MakeRecord(TY_EVENT_START);
    const std::string large((8U << 20) - 4800, 'u');
    const std::string tooLarge((16U << 20) + 1, 'u');
    const std::string image(4800, 'x');
    CCall unterminated = CCall::Of("SendData").Image(image).Image(image);
    std::vector<Outcome> outcomes = {
        {"empty", CCall::Batch(0, 0), "1 1", {}},
        {"as large as the library sends", CCall::Batch(36, 36), "1 1", Urls(36)},
        {"as large as a signature allows", CCall::Batch(62, 0), "1 1", Urls(0, 62), pCount},
        {"fewer URLs", CCall::Batch(3, 1), "1 1", Urls(1, 2), pCount},
        {"more URLs", CCall::Batch(1, 3), "1 1", Urls(1), pCount},
        {"only URLs", CCall::Batch(0, 5), "1 1", {}, pCount},
        {"a number behind", CCall::Batch(1, 1).IntValue(1), "0", {}, pOrder},
        {"a number first", CCall::Of("SendData").IntValue(1).Record(start), "0", {}, pOrder},
        {"a URL first", CCall::Of("SendData").TextValue("u").Record(start), "0", {}, pOrder},
        {"8 MiB", CCall::Batch(1, 0).TextValue(large), "1 1", {large}},
        {"over 16 MiB",
         CCall::Batch(1, 0).TextValue(tooLarge),
         "0",
         {},
         "a batch that is too large: 16782017 bytes"},
        {"other indices", WithOtherIndices(), "1 1", Urls(1)},
        {"unterminated strings", unterminated.TextValue("url0").TextValue("url1"), "1 1", Urls(2),
         "sent an unterminated string"},
        {"an identifier that fills its field",
         Single(MakeRecord(TY_EVENT_START, std::string(25, 'p'))), "1 1", Urls(1)},
    };
    for (const std::size_t size : {0, 1, 4799, 4801, 9600}) {
        CCall call = CCall::Batch(1, 0).Image(std::string(size, 'x'));
        outcomes.push_back(
            {"an image of the wrong size", call.TextValue("a").TextValue("b"), "0", {}, pSize});
    }
    return outcomes;
}

TEST_F(Batch, IsStoredWholeOrRefused) {
    ASSERT_TRUE(m_Keeper.Open());
    int peer = 0;
    for (Outcome& outcome : Outcomes()) {
        SCOPED_TRACE(outcome.pRule);
        // Each from a peer of its own, whose misbehaviour was not logged yet.
        const std::string name = ":2." + std::to_string(++peer);
        m_Platform.ClearLog();
        EXPECT_EQ(Answer(outcome.call.From(name.c_str())), outcome.pAnswer);
        EXPECT_THAT(Column("SELECT coalesce(url, 'none') FROM records WHERE bus_name = '" + name +
                           "' ORDER BY id"),
                    ElementsAreArray(outcome.urls));
        EXPECT_EQ(Errors().size(), outcome.pError != nullptr ? 1U : 0U);
        for (const std::string& line : Errors()) {
            EXPECT_THAT(line, HasSubstr(outcome.pError != nullptr ? outcome.pError : "no line"));
        }
    }
}

TEST_F(Batch, IsStoredWithItsSenderInOrder) {
    EXPECT_EQ(Answer(CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Answer(CCall::Batch(3, 3).From(":1.2")), "1 1");
    EXPECT_THAT(Column("SELECT bus_name || ' ' || uid || ' ' || pid || ' ' || param1 || ' ' || url "
                       "FROM records ORDER BY id LIMIT 3"),
                ElementsAre(":1.1 1000 42 0 url0", ":1.1 1000 42 1 url1", ":1.2 1000 42 0 url0"));
    EXPECT_THAT(Column("SELECT records FROM playbacks ORDER BY id"), ElementsAre("2", "3"));
}

TEST_F(Batch, IsStoredWithItsArrivalTime) {
    const auto now = [] {
        return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    };
    const std::int64_t before = now();
    Answer(CCall::Batch(1, 1));
    EXPECT_GE(Number("SELECT arrival FROM records"), before);
    EXPECT_LE(Number("SELECT arrival FROM records"), now());
}

TEST_F(Batch, ThatCannotBeStoredIsNotAccepted) {
    ASSERT_TRUE(m_Keeper.Open());
    Execute(
        "CREATE TRIGGER fail BEFORE INSERT ON entries WHEN NEW.param1 = 1 "
        "BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(Answer(CCall::Batch(2, 2)), "1 0");
    EXPECT_EQ(Stored(), 0);
    Execute("DROP TRIGGER fail");
    m_Now += std::chrono::seconds(1);
    EXPECT_EQ(Answer(CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Stored(), 2);
}

TEST_F(Batch, CutsUnterminatedStringsAtTheirFields) {
    Answer(CCall::Of("SendData").Image(std::string(4800, 'x')).TextValue("u"));
    EXPECT_THAT(Column("SELECT length(playback_id) || ' ' || length(title) || ' ' || "
                       "length(custom_info) FROM records"),
                ElementsAre("25 256 4096"));
    EXPECT_THAT(Lines(LOGSVC_INFO), Contains(HasSubstr("sent an unknown event code: 120")));
}

TEST_F(Batch, ConvertsTextsToUtf8) {
    TYMediaData record = MakeRecord(TY_EVENT_START);
    CopyText(record.content.title, "caf\xe9");
    EXPECT_EQ(Answer(Single(record)), "1 1");
    EXPECT_THAT(Column("SELECT title FROM records"), ElementsAre("caf\xEF\xBF\xBD"));
}

TEST_F(Batch, LogsUnknownEventCodesOnceAndStoresThem) {
    for (const int code : {0, 11, 19, 23, 99, 200, 206, 255}) {
        EXPECT_EQ(Answer(Single(MakeRecord(code))), "1 1");
    }
    EXPECT_THAT(Errors(), IsEmpty());
    auto lines = Lines(LOGSVC_INFO);
    std::erase_if(lines, [](const auto& line) { return line.find("event code") == line.npos; });
    EXPECT_THAT(lines, ElementsAre(HasSubstr("sent an unknown event code: 0 (")));
    EXPECT_EQ(Stored(), 8);
}

TEST_F(Batch, LogsNothingForCodesOfTheLibrary) {
    const std::vector<int> codes = {TY_EVENT_START,
                                    TY_EVENT_STOP,
                                    TY_EVENT_PAUSE,
                                    TY_EVENT_BUFFERING_START,
                                    TY_EVENT_BUFFERING_END,
                                    TY_EVENT_RENDER_START,
                                    TY_EVENT_RESUME,
                                    TY_EVENT_PLAYBACK_TIME,
                                    TY_EVENT_SEEK,
                                    TY_EVENT_SEEK_COMPLETE,
                                    TY_EVENT_PLAYING_TIME,
                                    TY_EVENT_START_UP_TIME,
                                    TY_EVENT_BUFFERING_TIME,
                                    TY_ERROR_URL_CHANGED,
                                    TY_ERROR_BUFFERING_MISMATCH,
                                    TY_ERROR_DUPLICATED_START,
                                    TY_ERROR_PLAYBACK_TIME_JUMP,
                                    TY_ERROR_DUPLICATED_RENDER_START};
    for (const int code : codes) {
        EXPECT_EQ(Answer(Single(MakeRecord(code))), "1 1");
    }
    EXPECT_THAT(Lines(LOGSVC_INFO), ElementsAre(HasSubstr("storing records in")));
}

TEST_F(Batch, IsAcceptedWithoutBeingStoredWithDiscard) {
    CTYServiceHandler handler(m_Keeper, m_Peers, true);
    ASSERT_TRUE(m_Keeper.Open());
    EXPECT_EQ(Answer(handler, CCall::Batch(2, 2)), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Of("SendData").Image("short")), "0");
    EXPECT_EQ(Stored(), 0);
}

}  // namespace
