// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecordImage.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

// Each byte of the image differs from its neighbours.
std::string CountingImage() {
    std::string image(4800, '\0');
    for (std::size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<char>(1 + i % 251);
    }
    return image;
}

std::string ImageWith(std::size_t offset, const std::string& bytes) {
    std::string image(4800, '\0');
    return image.replace(offset, bytes.size(), bytes);
}

TYMediaData RecordWith(std::size_t offset, const std::string& bytes) {
    return RecordFromImage(ImageWith(offset, bytes)).value();
}

TEST(RecordImage, NumbersStandAtTheirOffsets) {
    EXPECT_EQ(RecordWith(0, "\xfe").playerID, -2);
    EXPECT_EQ(RecordWith(1, "\xff").networkType, 255);
    EXPECT_EQ(RecordWith(92, "\xc8").event, 200);
    EXPECT_EQ(RecordWith(96, "\x01\x02\x03\x04").param1, 0x04030201);
    EXPECT_EQ(RecordWith(100, "\xff\xff\xff\xff").param2, -1);
    EXPECT_EQ(RecordWith(104, "\x01\x02\x03\x04").content.duration, 0x04030201);
    EXPECT_EQ(RecordWith(112, "\x07").content.drmType, 7);
    EXPECT_EQ(RecordWith(113, "\x08").content.contentType, 8);
    EXPECT_EQ(RecordWith(4792, "\x01\x02\x03\x04").time.sec, 0x04030201);
    EXPECT_EQ(RecordWith(4796, "\x01\x02\x03\x04").time.nsec, 0x04030201);
}

TEST(RecordImage, TextsStandAtTheirOffsets) {
    EXPECT_EQ(TextsOf(RecordWith(2, "playback")).playbackID, "playback");
    EXPECT_EQ(TextsOf(RecordWith(27, "1.2.3")).serviceVersion, "1.2.3");
    EXPECT_EQ(TextsOf(RecordWith(39, "app")).serviceID, "app");
    EXPECT_EQ(TextsOf(RecordWith(114, "channel")).channelID, "channel");
    EXPECT_EQ(TextsOf(RecordWith(370, "title")).title, "title");
    EXPECT_EQ(TextsOf(RecordWith(626, "genre")).genre, "genre");
    EXPECT_EQ(TextsOf(RecordWith(694, "custom")).customInfo, "custom");
}

TEST(RecordImage, EachTextIsBoundedByItsField) {
    const TYRecordTexts texts = TextsOf(*RecordFromImage(std::string(4800, 'x')));
    EXPECT_EQ(texts.playbackID.size(), 25U);
    EXPECT_EQ(texts.serviceVersion.size(), 12U);
    EXPECT_EQ(texts.serviceID.size(), 50U);
    EXPECT_EQ(texts.channelID.size(), 256U);
    EXPECT_EQ(texts.title.size(), 256U);
    EXPECT_EQ(texts.genre.size(), 68U);
    EXPECT_EQ(texts.customInfo.size(), 4096U);
}

TEST(RecordImage, ATextThatFillsItsFieldIsFoundInEachField) {
    EXPECT_TRUE(HasTerminatedTexts(TYMediaData{}));
    EXPECT_TRUE(HasTerminatedTexts(RecordWith(2, std::string(25, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(27, std::string(12, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(39, std::string(50, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(114, std::string(256, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(370, std::string(256, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(626, std::string(68, 'x'))));
    EXPECT_FALSE(HasTerminatedTexts(RecordWith(694, std::string(4096, 'x'))));
    EXPECT_TRUE(HasTerminatedTexts(RecordWith(694, std::string(4095, 'x'))));
}

TEST(RecordImage, AnyOtherSizeIsNoRecord) {
    for (const std::size_t size : {0, 1, 4799, 4801, 9600}) {
        EXPECT_FALSE(RecordFromImage(std::string(size, '\0')).has_value()) << size;
    }
}

TEST(RecordImage, AnyContentIsARecordAndComesBackByteForByte) {
    const std::string image = CountingImage();
    const auto record = RecordFromImage(image);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(ImageOf(*record), image);
}

TEST(RecordImage, TextsAreValidUtf8Afterwards) {
    EXPECT_EQ(ValidText("Ünïcode"), "Ünïcode");
    EXPECT_EQ(ValidText("a\xff"
                        "b"),
              "a\xEF\xBF\xBD"
              "b");
    EXPECT_EQ(ValidText("cut \xC3"), "cut \xEF\xBF\xBD");
    EXPECT_EQ(ValidText(std::string_view("a\0b", 3)), "a");
    EXPECT_EQ(ValidText(""), "");
    EXPECT_EQ(TextsOf(RecordWith(370, "\xff")).title, "\xEF\xBF\xBD");
}

TEST(RecordImage, TheCommonPartAndTheRestAreTheWholeImage) {
    const TYMediaData record = *RecordFromImage(CountingImage());
    auto again = RecordFromCommonPart(CommonPart(record));
    ASSERT_TRUE(again.has_value());
    again->event = record.event;
    std::copy_n(record.padding2, sizeof(record.padding2), again->padding2);
    again->param1 = record.param1;
    again->param2 = record.param2;
    again->time = record.time;
    EXPECT_EQ(ImageOf(*again), ImageOf(record));
}

TEST(RecordImage, TheCommonPartLeavesOutTheZerosAtItsEnd) {
    EXPECT_EQ(CommonPart(TYMediaData{}), "");
    EXPECT_EQ(CommonPart(RecordWith(2, "p")), std::string("\0\0p", 3));
    EXPECT_EQ(CommonPart(RecordWith(92, "\x05")), "");
    EXPECT_EQ(CommonPart(*RecordFromImage(CountingImage())).size(), 92U + 4688U);
}

TEST(RecordImage, HasTheCommonPartThatIsItsOwnAndNoOther) {
    const std::string full = CountingImage();
    for (const std::string& image : {full, std::string(4800, '\0'), ImageWith(2, "p"),
                                     ImageWith(370, "title"), ImageWith(104, "\x01")}) {
        const TYMediaData record = RecordFromImage(image).value();
        const std::string common = CommonPart(record);
        EXPECT_TRUE(HasCommonPart(record, common));
        EXPECT_FALSE(HasCommonPart(record, common + "x"));
        for (std::size_t i = 0; i < image.size(); i += i < 110 ? 1 : 97) {
            std::string other = image;
            other[i] = static_cast<char>(other[i] ^ 1);
            const TYMediaData changed = RecordFromImage(other).value();
            EXPECT_EQ(HasCommonPart(changed, common), CommonPart(changed) == common) << i;
        }
    }
    EXPECT_FALSE(HasCommonPart(TYMediaData{}, std::string(4781, 'x')));
}

TEST(RecordImage, WhatIsTooLongForACommonPartIsNone) {
    EXPECT_TRUE(RecordFromCommonPart(std::string(4780, 'x')).has_value());
    EXPECT_FALSE(RecordFromCommonPart(std::string(4781, 'x')).has_value());
    EXPECT_EQ(ImageOf(*RecordFromCommonPart("")), std::string(4800, '\0'));
}

}  // namespace
