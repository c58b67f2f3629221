// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Test.h"
#include "receiver/Wire.h"

#include "Image.h"

namespace receiver {
namespace {

using namespace std::string_view_literals;

// Parses the text form of a tuple, as in "(0, 1, 'Kick')".
Body DecodeText(const char* pText) {
    GVariant* pBody = g_variant_ref_sink(g_variant_new_parsed(pText));
    Body body = DecodeBody(pBody);
    g_variant_unref(pBody);
    return body;
}

TEST(WireBody, ValidBodiesAreReadInOrder) {
    const std::pair<const char*, std::vector<Value>> bodies[] = {
        {"(0, 0, 7, 1, 1, 'abc', 2, 2, [byte 1, 2, 255])", {7, "abc", Bytes{1, 2, 255}}},
        {"()", {}},
        {"(0, 2, @ay [])", {Bytes{}}}};
    for (const auto& [pText, values] : bodies) {
        SCOPED_TRACE(pText);
        EXPECT_EQ(DecodeText(pText).values, values);
        EXPECT_EQ(DecodeText(pText).strProblem, "");
    }
    EXPECT_TRUE(DecodeBody(nullptr).values.empty());
    EXPECT_EQ(DecodeBody(nullptr).strProblem, "");
}

struct {
    const char* pText;
    std::size_t nValues;
    const char* pProblem;
} const kMalformedBodies[] = {
    {"(0, 1, 'Kick', 0, 1, 'Kick')", 1, "argument 3: index 0, expected 1"},
    {"('0', 0, 7)", 0, "argument 0: the index must be an INT32 ('i'), but is 's'"},
    {"(0, @y 0, 7)", 0, "argument 1: the type must be an INT32 ('i'), but is 'y'"},
    {"(0, 3, 7)", 0, "argument 1: type 3 is not 0, 1 or 2"},
    {"(0, -1, 7)", 0, "argument 1: type -1 is not 0, 1 or 2"},
    {"(0, 1, 7)", 0, "argument 2: type 1 with a payload of type 'i'"},
    {"(0, 2, 'text')", 0, "argument 2: type 2 with a payload of type 's'"},
    {"(0, 0, @u 7)", 0, "argument 2: type 0 with a payload of type 'u'"},
    {"(0, 0, 7, 1, 0)", 1, "argument 3: the body ends inside a triple (5 arguments)"},
    {"'text'", 0, "the body is not a tuple, but of type 's'"}};

TEST(WireBody, MalformedBodiesAreReadUpToTheProblem) {
    for (const auto& one : kMalformedBodies) {
        SCOPED_TRACE(one.pText);
        EXPECT_EQ(DecodeText(one.pText).strProblem, one.pProblem);
        EXPECT_EQ(DecodeText(one.pText).values.size(), one.nValues);
    }
}

TEST(WireBody, WrittenValuesAreTriplesWithRunningIndices) {
    GVariant* pBody = g_variant_ref_sink(EncodeBody({7, "abc", Bytes{1, 2, 3}}));
    char* pText = g_variant_print(pBody, FALSE);

    EXPECT_STREQ(pText, "(0, 0, 7, 1, 1, 'abc', 2, 2, [0x01, 0x02, 0x03])");
    EXPECT_STREQ(g_variant_get_type_string(pBody), "(iiiiisiiay)");
    g_free(pText);
    g_variant_unref(pBody);
}

// The padding, which is ignored, is not zero.
Bytes MakeFullImage() {
    Bytes image(4800, 0);
    const std::pair<std::size_t, std::string_view> parts[] = {{0, "\xFE\xFF"sv},
                                                              {2, "012340123456789000000042"},
                                                              {27, "1.20.3"},
                                                              {39, "com.example.player"},
                                                              {89, "\xAA\xAA\xAA"},
                                                              {92, "\xCC\xAA\xAA\xAA"},
                                                              {96, "\x50\xA5\x05\x00"sv},
                                                              {100, "\xFF\xFF\xFF\xFF"},
                                                              {104, "\x80\xEE\x36\x00"sv},
                                                              {108, "\x78\x56\x34\x92"},
                                                              {112, "\x02\xFF"},
                                                              {114, "ch-7"},
                                                              {370, "The Long Way"},
                                                              {626, "drama"},
                                                              {694, "{\"a\":1}"},
                                                              {4790, "\xAA\xAA"},
                                                              {4792, "\x00\xF1\x53\x65"sv},
                                                              {4796, "\xFF\xC9\x9A\x3B"}};
    for (const auto& [nOffset, bytes] : parts) {
        Put(image, nOffset, bytes);
    }
    return image;
}

TEST(WireRecord, NumbersAreReadFromTheirOffsets) {
    const Record record = DecodeRecord(MakeFullImage());

    EXPECT_EQ(record.strProblem, "");
    EXPECT_EQ(record.playerId, -2);
    EXPECT_EQ(record.networkType, 255);
    EXPECT_EQ(record.event, 204);
    EXPECT_EQ(record.param1, 370000);
    EXPECT_EQ(record.param2, -1);
    EXPECT_EQ(record.duration, 3600000);
    EXPECT_EQ(record.urlSlot, 0x92345678U);
    EXPECT_EQ(record.drmType, 2);
    EXPECT_EQ(record.contentType, 255);
    EXPECT_EQ(record.seconds, 1700000000);
    EXPECT_EQ(record.nanoseconds, 999999999);
}

TEST(WireRecord, TextsAreReadFromTheirOffsets) {
    const Record record = DecodeRecord(MakeFullImage());

    EXPECT_EQ(record.playbackId, "012340123456789000000042");
    EXPECT_EQ(record.serviceVersion, "1.20.3");
    EXPECT_EQ(record.serviceId, "com.example.player");
    EXPECT_EQ(record.channelId, "ch-7");
    EXPECT_EQ(record.title, "The Long Way");
    EXPECT_EQ(record.genre, "drama");
    EXPECT_EQ(record.customInfo, "{\"a\":1}");
}

TEST(WireRecord, OnlyThePlaybackIdMayFillItsField) {
    Bytes image = MakeImage(1);
    Put(image, 2, "0123456789012345678901234");
    EXPECT_EQ(DecodeRecord(image).playbackId, "0123456789012345678901234");
    EXPECT_EQ(DecodeRecord(image).strProblem, "");
    EXPECT_EQ(DecodeRecord(Bytes(4800, 'x')).strProblem,
              "serviceVersion has no NUL in its 12 bytes; "
              "serviceID has no NUL in its 50 bytes; "
              "channelID has no NUL in its 256 bytes; "
              "title has no NUL in its 256 bytes; "
              "genre has no NUL in its 68 bytes; "
              "customInfo has no NUL in its 4096 bytes; "
              "time has 2021161080 nanoseconds");
}

TEST(WireRecord, NegativeNanosecondsAndOtherSizesAreProblems) {
    Bytes image = MakeImage(1);
    Put(image, 4796, "\xFF\xFF\xFF\xFF"sv);
    EXPECT_EQ(DecodeRecord(image).strProblem, "time has -1 nanoseconds");
    EXPECT_EQ(DecodeRecord(Bytes(4799, 0)).strProblem, "an image of 4799 bytes, expected 4800");
    EXPECT_EQ(DecodeRecord(Bytes()).strProblem, "an image of 0 bytes, expected 4800");
}

TEST(WireBatch, ImagesComeFirstAndThenTheirUrls) {
    const std::vector<Value> values = {Bytes{1}, Bytes{2}, "a", "b"};
    const Batch batch = DecodeBatch(values);

    EXPECT_EQ(batch.strProblem, "");
    EXPECT_EQ(batch.images, (std::vector<Bytes>{{1}, {2}}));
    EXPECT_EQ(batch.urls, (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(DecodeBatch({}).strProblem, "");
}

TEST(WireBatch, MalformedBatchesHaveAProblem) {
    const std::pair<std::vector<Value>, const char*> batches[] = {
        {{Bytes{1}, Bytes{2}, "a"}, "2 images, but 1 URLs"},
        {{Bytes{1}, "a", Bytes{2}, "b"}, "value 3: an image after the URLs"},
        {{Bytes{1}, 5}, "value 2: neither an image nor a URL"}};
    for (const auto& [values, pProblem] : batches) {
        EXPECT_EQ(DecodeBatch(values).strProblem, pProblem);
    }
}

}  // namespace
}  // namespace receiver
