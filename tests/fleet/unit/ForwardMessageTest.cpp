// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetFixture.h"
#include "Sessions.h"
#include "TYRecordImage.h"
#include "TableTest.h"

using testing::HasSubstr;
using testing::Le;
using testing::StartsWith;

namespace {

class ForwardMessage : public testing::Test {
  protected:
    static void ExpectEqual(const TYForwardedBatch& a, const TYForwardedBatch& b) {
        EXPECT_EQ(std::tie(a.device, a.epoch, a.after, a.first, a.urls, a.arrivals),
                  std::tie(b.device, b.epoch, b.after, b.first, b.urls, b.arrivals));
        EXPECT_TRUE(std::ranges::equal(a.records, b.records, {}, ImageOf, ImageOf));
        ASSERT_EQ(a.origin.has_value(), b.origin.has_value());
        EXPECT_EQ(a.KeyEpoch(), b.KeyEpoch());
        EXPECT_EQ(a.KeyFirst(), b.KeyFirst());
    }

    CTYForwardMessage m_Codec;
};

TEST_F(ForwardMessage, ComesBackAsItWas) {
    TYForwardedBatch batch = ForwardedBatch(7, 9, 24);
    batch.urls[3].reset();
    batch.urls[4] = "";
    batch.records[5].content.customInfo[4095] = 'x';
    batch.records[6].padding2[2] = '\x7f';
    batch.arrivals[23] = INT64_MIN;
    batch.arrivals[22] = INT64_MAX;
    ExpectEqual(m_Codec.Decode(m_Codec.Encode(batch)), batch);
    batch.origin = {kOtherEpoch, 1'000'000};
    ExpectEqual(m_Codec.Decode(m_Codec.Encode(batch)), batch);
}

TEST_F(ForwardMessage, WithoutRecordsSaysThatNothingIsLeft) {
    const TYForwardedBatch batch = ForwardedBatch(7, 31, 0);
    const TYForwardedBatch again = m_Codec.Decode(m_Codec.Encode(batch));
    ExpectEqual(again, batch);
    EXPECT_EQ(again.Last(), 30);
}

TEST_F(ForwardMessage, BeginsWithSixteenBytesThatTheDocumentDescribes) {
    const TYMessage message = m_Codec.Encode(ForwardedBatch(7, 0x0102, 3));
    EXPECT_EQ(message.subject, std::string("tallyra.records.tv1.") + kEpoch);
    EXPECT_EQ(message.body.substr(0, 16),
              std::string("\x01\x00\x03\x00\x0a\x1b\x2c\x3d\x02\x01\x00\x00\x00\x00\x00\x00", 16));
    EXPECT_EQ(message.Header("Nats-Msg-Id"), std::string("tv1/") + kEpoch + "/258-260");
    EXPECT_EQ(message.Header("Tallyra-After"), "7");
    EXPECT_EQ(message.Header("Tallyra-Arrivals"), "1258*2+1*1");
}

TEST_F(ForwardMessage, IsTheSameEachTime) {
    const TYForwardedBatch batch = ForwardedBatch(7, 9, 24);
    CTYForwardMessage other;
    EXPECT_EQ(m_Codec.Encode(batch).body, other.Encode(batch).body);
}

// Each title and each URL is another, as on a device whose viewer zaps.
TEST_F(ForwardMessage, TakesAtMostSixtyBytesForARecordOfABatchOf24) {
    CDice dice(1);
    std::size_t bytes = 0;
    std::int64_t id = 1;
    TYForwardedBatch batch = ForwardedBatch(0, id, 0);
    batch.device = "living-room-tv-0001";
    for (int number = 0; number < 200; ++number) {
        const Session session = MakeSession(dice, number, 1'795'000'000'000 + number * 60'000LL);
        for (TYMediaData record : session.records) {
            CopyText(record.content.title, ("Title " + std::to_string(number * 7919)).c_str());
            batch.records.push_back(record);
            batch.urls.push_back(session.url + "/" + std::to_string(number * 104'729));
            batch.arrivals.push_back(record.time.sec * 1'000'000'000LL + record.time.nsec);
            if (batch.records.size() == CTYForwardMessage::kMostRecords) {
                bytes += m_Codec.Encode(batch).Size();
                id += CTYForwardMessage::kMostRecords;
                batch = ForwardedBatch(id - 1, id, 0);
                batch.device = "living-room-tv-0001";
            }
        }
    }
    EXPECT_THAT(bytes / static_cast<std::size_t>(id - 1), Le(60U));
}

struct Change {
    std::function<void(TYMessage&)> apply;
    const char* reason;
};
using MalformedMessage = CTableTest<ForwardMessage, Change>;

void SetHeader(TYMessage& message, const std::string& name, const std::string& value) {
    std::erase_if(message.headers, [&](const auto& header) { return header.first == name; });
    message.headers.emplace_back(name, value);
}
Change Header(const char* pName, const char* pValue, const char* pReason) {
    return {[=](TYMessage& message) { SetHeader(message, pName, pValue); }, pReason};
}
Change Byte(std::size_t index, char value, const char* pReason) {
    return {[=](TYMessage& message) { message.body.at(index) = value; }, pReason};
}
Change Subject(std::string subject) {
    return {[=](TYMessage& message) { message.subject = subject; }, "bad epoch"};
}

const Named<Change> kMalformed[] = {
    {"Empty", {[](TYMessage& message) { message.body.clear(); }, "cut off"}},
    {"HeaderOnly", {[](TYMessage& message) { message.body.resize(15); }, "cut off"}},
    {"OtherVersion", Byte(0, 2, "unknown version")},
    {"SecondByteNotZero", Byte(1, 1, "unknown version")},
    {"TooManyRecords", Byte(2, 25, "bad range")},
    {"EpochOfAnotherStore", Byte(4, 1, "bad epoch")},
    {"NegativeId", Byte(15, '\x80', "bad range")},
    {"FewerRecordsThanSaid", Byte(2, 4, "bad arrivals")},
    {"BrokenFrame", Byte(16, 0, "not decompressible")},
    {"CutFrame", {[](TYMessage& message) { message.body.pop_back(); }, "not decompressible"}},
    {"NoAfter", Header("Tallyra-After", "", "bad range")},
    {"AfterIsNoNumber", Header("Tallyra-After", "7x", "bad range")},
    {"NegativeAfter", Header("Tallyra-After", "-1", "bad range")},
    {"AfterBehindTheFirst", Header("Tallyra-After", "9", "bad range")},
    {"NoArrivals", Header("Tallyra-Arrivals", "", "bad arrivals")},
    {"TooFewArrivals", Header("Tallyra-Arrivals", "1*2", "bad arrivals")},
    {"TooManyArrivals", Header("Tallyra-Arrivals", "1*4", "bad arrivals")},
    {"ArrivalsOfNothing", Header("Tallyra-Arrivals", "1*0+1*3", "bad arrivals")},
    {"ArrivalsWithMore", Header("Tallyra-Arrivals", "1*3 ", "bad arrivals")},
    {"HugeArrival", Header("Tallyra-Arrivals", "9999999999999999999*3", "bad arrivals")},
    {"OriginWithoutId", Header("Tallyra-Origin", kOtherEpoch, "bad origin")},
    {"OriginIsNoEpoch", Header("Tallyra-Origin", "x/1", "bad origin")},
    {"OriginAtZero",
     Header("Tallyra-Origin", "ffffffff-0000-4000-8000-000000000002/0", "bad origin")},
    {"NoDevice", Subject(std::string("tallyra.records..") + kEpoch)},
    {"WildDevice", Subject(std::string("tallyra.records.tv*.") + kEpoch)},
    {"NoEpoch", Subject("tallyra.records.tv1")},
    {"UpperCaseEpoch", Subject("tallyra.records.tv1.0A1B2C3D-0000-4000-8000-000000000001")},
};
INSTANTIATE_TEST_SUITE_P(Table, MalformedMessage, testing::ValuesIn(kMalformed), kByName);

TEST_P(MalformedMessage, IsRefusedWithAReason) {
    TYMessage message = m_Codec.Encode(ForwardedBatch(7, 9, 3));
    Case().apply(message);
    try {
        m_Codec.Decode(message);
        FAIL() << "decoded";
    } catch (const CTYBadMessage& error) {
        EXPECT_STREQ(error.what(), Case().reason);
    }
}

// The frame is intact, and its content is not what the header says.
TEST_F(ForwardMessage, WithAUrlThatIsLongerThanTheMessageIsRefused) {
    TYForwardedBatch batch = ForwardedBatch(7, 9, 2);
    TYMessage message = m_Codec.Encode(batch);
    std::string plain(4804, '\0');
    const std::uint32_t length = 0x7fffffff;
    std::memcpy(plain.data(), &length, sizeof(length));
    message.body.resize(16 + ZSTD_compressBound(plain.size()));
    message.body.resize(16 + ZSTD_compress(message.body.data() + 16, message.body.size() - 16,
                                           plain.data(), plain.size(), 1));
    EXPECT_THROW(m_Codec.Decode(message), CTYBadMessage);
}

TEST_F(ForwardMessage, ThatDecompressesWithoutBoundTakesNoMemory) {
    TYMessage message = m_Codec.Encode(ForwardedBatch(7, 9, 2));
    const std::string plain(std::size_t{64} << 20, '\0');
    message.body.resize(16 + ZSTD_compressBound(plain.size()));
    message.body.resize(16 + ZSTD_compress(message.body.data() + 16, message.body.size() - 16,
                                           plain.data(), plain.size(), 1));
    EXPECT_THROW(m_Codec.Decode(message), CTYBadMessage);
}

}  // namespace
