// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "HandlerFixture.h"

#include <algorithm>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class Batch : public CHandlerTest {
  protected:
    // A batch of images and URLs in the order that they have to have.
    static CCall Of(int images, int urls) {
        CCall call = CCall::Of("SendData");
        for (int i = 0; i < images; ++i) {
            call.Record(MakeRecord(8, "p1", i));
        }
        for (int i = 0; i < urls; ++i) {
            call.TextValue("url" + std::to_string(i));
        }
        return call;
    }
};

TEST_F(Batch, IsAcceptedOnceItIsStored) {
    EXPECT_EQ(Answer(Of(2, 2)), "1 1");
    EXPECT_THAT(Read().Column("SELECT bus_name || ' ' || uid || ' ' || pid || ' ' || param1 || ' ' "
                              "|| url FROM records ORDER BY id"),
                ElementsAre(":1.1 1000 42 0 url0", ":1.1 1000 42 1 url1"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Batch, HasTheTimeOfItsArrival) {
    const auto now = [] {
        return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
    };
    const std::int64_t before = now();
    Answer(Of(1, 1));
    EXPECT_GE(Read().Number("SELECT arrival FROM records"), before);
    EXPECT_LE(Read().Number("SELECT arrival FROM records"), now());
}

TEST_F(Batch, ThatCannotBeStoredIsNotAccepted) {
    ASSERT_TRUE(m_Keeper.Open());
    CFileReader writer(m_File, CTYDatabase::Mode::READ_WRITE);
    writer.Execute(
        "CREATE TRIGGER fail BEFORE INSERT ON entries WHEN NEW.param1 = 1 "
        "BEGIN SELECT RAISE(ABORT, 'no'); END");
    EXPECT_EQ(Answer(Of(2, 2)), "1 0");
    EXPECT_EQ(Stored(), 0);
    writer.Execute("DROP TRIGGER fail");
    m_Now += std::chrono::seconds(1);
    EXPECT_EQ(Answer(Of(2, 2)), "1 1");
    EXPECT_EQ(Stored(), 2);
}

TEST_F(Batch, ThatIsEmptyIsAccepted) {
    EXPECT_EQ(Answer(Of(0, 0)), "1 1");
}

TEST_F(Batch, MayBeAsLargeAsAMessageHolds) {
    EXPECT_EQ(Answer(Of(36, 36)), "1 1");
    EXPECT_EQ(Answer(Of(62, 0)), "1 1");
    EXPECT_EQ(Stored(), 98);
}

TEST_F(Batch, WithFewerUrlsIsStoredWithThoseThatCame) {
    EXPECT_EQ(Answer(Of(3, 1)), "1 1");
    EXPECT_THAT(Read().Column("SELECT coalesce(url, 'none') FROM records ORDER BY id"),
                ElementsAre("url0", "none", "none"));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent a different number of URLs than records")));
}

TEST_F(Batch, WithMoreUrlsIsStoredWithoutThoseThatAreTooMany) {
    EXPECT_EQ(Answer(Of(1, 3)), "1 1");
    EXPECT_THAT(Read().Column("SELECT url FROM records"), ElementsAre("url0"));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent a different number of URLs than records")));
}

TEST_F(Batch, OfUrlsAloneStoresNothing) {
    EXPECT_EQ(Answer(Of(0, 5)), "1 1");
    EXPECT_EQ(Errors().size(), 1U);
}

TEST_F(Batch, WithAnImageOfAnotherSizeIsRefusedWhole) {
    for (const std::size_t size : {0, 1, 4799, 4801, 9600}) {
        CCall call = Of(1, 0);
        call.Image(std::string(size, 'x')).TextValue("a").TextValue("b");
        EXPECT_EQ(Answer(call), "0") << size;
    }
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent an image of the wrong size: 0 bytes")));
    EXPECT_EQ(Answer(Of(1, 1)), "1 1");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Batch, WithValuesOfAnotherKindOrOrderIsRefusedWhole) {
    EXPECT_EQ(Answer(Of(1, 1).IntValue(1)), "0");
    EXPECT_EQ(Answer(CCall::Of("SendData").IntValue(1).Record(MakeRecord(1))), "0");
    EXPECT_EQ(Answer(CCall::Of("SendData").TextValue("u").Record(MakeRecord(1))), "0");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("a batch that is not images followed by URLs")));
    EXPECT_EQ(Answer(Of(1, 1)), "1 1");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Batch, WhoseIndicesCountSomethingElseIsReadByWhatIsThere) {
    CCall call;
    const TYMediaData record = MakeRecord(1);
    call.Int(7).Int(1).Text("SendData").Int(1000).Int(2);
    call.Bytes({reinterpret_cast<const char*>(&record), sizeof(record)});
    call.Int(-1).Int(1).Text("u");
    EXPECT_EQ(Answer(call), "1 1");
    EXPECT_THAT(Read().Column("SELECT url FROM records"), ElementsAre("u"));
}

TEST_F(Batch, ThatIsHugeIsRefused) {
    CCall call = Of(1, 0);
    call.TextValue(std::string((16U << 20) + 1, 'u'));
    EXPECT_EQ(Answer(call), "0");
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("a batch that is too large: 16782017 bytes")));
    EXPECT_EQ(Answer(Of(1, 1)), "1 1");
    EXPECT_EQ(Stored(), 1);
}

TEST_F(Batch, ThatIsAsBigAsTheLibraryMakesThemIsAccepted) {
    CCall call = Of(1, 0);
    call.TextValue(std::string((8U << 20) - 4800, 'u'));
    EXPECT_EQ(Answer(call), "1 1");
    EXPECT_EQ(Read().Number("SELECT length(url) FROM records"), (8 << 20) - 4800);
}

TEST_F(Batch, WithTextsThatDoNotEndIsStoredAndSaidOnce) {
    const std::string image(4800, 'x');
    EXPECT_EQ(Answer(CCall::Of("SendData").Image(image).Image(image).TextValue("u").TextValue("u")),
              "1 1");
    EXPECT_THAT(Read().Column("SELECT DISTINCT length(playback_id) || ' ' || length(title) || ' ' "
                              "|| length(custom_info) FROM records"),
                ElementsAre("25 256 4096"));
    EXPECT_THAT(Errors(), ElementsAre(HasSubstr("sent an unterminated string")));
    EXPECT_THAT(Lines(LOGSVC_INFO), Contains(HasSubstr("unknown event code: 120")));
}

TEST_F(Batch, WithAPlaybackThatFillsItsFieldIsNothingToTalkAbout) {
    const TYMediaData record = MakeRecord(1, std::string(25, 'p'));
    EXPECT_EQ(Answer(CCall::Of("SendData").Record(record).TextValue("u")), "1 1");
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Batch, WithCodesNeverSeenIsStoredAndSaidOnce) {
    for (const int code : {0, 11, 19, 23, 99, 200, 206, 255}) {
        EXPECT_EQ(Answer(CCall::Of("SendData").Record(MakeRecord(code)).TextValue("u")), "1 1");
    }
    EXPECT_THAT(Errors(), IsEmpty());
    auto lines = Lines(LOGSVC_INFO);
    std::erase_if(lines, [](const auto& line) { return line.find("unknown event") == line.npos; });
    EXPECT_THAT(lines, ElementsAre(HasSubstr("an unknown event code: 0 (")));
    EXPECT_EQ(Stored(), 8);
}

TEST_F(Batch, WithCodesThatTheLibrarySendsIsNothingToTalkAbout) {
    for (const int code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 20, 21, 22, 201, 202, 203, 204, 205}) {
        EXPECT_EQ(Answer(CCall::Of("SendData").Record(MakeRecord(code)).TextValue("u")), "1 1");
    }
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(Batch, WithTextsThatAreNotUtf8IsStoredWithReadableOnes) {
    TYMediaData record = MakeRecord(1);
    CopyText(record.content.title, "caf\xe9");
    EXPECT_EQ(Answer(CCall::Of("SendData").Record(record).TextValue("u")), "1 1");
    EXPECT_THAT(Read().Column("SELECT title FROM records"), ElementsAre("caf\xEF\xBF\xBD"));
}

TEST_F(Batch, OfOnePeerDoesNotTouchThePlaybackOfAnother) {
    Answer(Of(1, 1).From(":1.1"));
    Answer(Of(3, 3).From(":1.2"));
    EXPECT_THAT(Read().Column("SELECT s.name || ' ' || p.records FROM playbacks p "
                              "JOIN senders s ON s.id = p.sender ORDER BY p.id"),
                ElementsAre(":1.1 1", ":1.2 3"));
}

TEST_F(Batch, IsAcceptedWithoutBeingStoredWhereThatIsWanted) {
    CTYServiceHandler handler(m_Keeper, m_Peers, true);
    ASSERT_TRUE(m_Keeper.Open());
    EXPECT_EQ(Answer(handler, Of(2, 2)), "1 1");
    EXPECT_EQ(Answer(handler, CCall::Of("SendData").Image("short")), "0");
    EXPECT_EQ(Stored(), 0);
}

}  // namespace
