// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecordImage.h"
#include "Test.h"

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

TEST(RecordImage, HasEachTextAtItsOffsetBoundedByItsField) {
    const struct {
        std::string TYRecordTexts::*pText;
        std::size_t offset;
        std::size_t size;
        bool mayFillItsField = false;
    } fields[] = {
        {&TYRecordTexts::playbackID, 2, 25, true}, {&TYRecordTexts::serviceVersion, 27, 12},
        {&TYRecordTexts::serviceID, 39, 50},       {&TYRecordTexts::channelID, 114, 256},
        {&TYRecordTexts::title, 370, 256},         {&TYRecordTexts::genre, 626, 68},
        {&TYRecordTexts::customInfo, 694, 4096}};
    const TYRecordTexts full = TextsOf(*RecordFromImage(std::string(4800, 'x')));
    for (const auto& field : fields) {
        SCOPED_TRACE(field.offset);
        EXPECT_EQ(TextsOf(RecordWith(field.offset, "text")).*field.pText, "text");
        EXPECT_EQ(full.*field.pText, std::string(field.size, 'x'));
        EXPECT_EQ(HasTerminatedTexts(RecordWith(field.offset, std::string(field.size, 'x'))),
                  field.mayFillItsField);
        EXPECT_TRUE(HasTerminatedTexts(RecordWith(field.offset, std::string(field.size - 1, 'x'))));
    }
}

TEST(RecordImage, HasTextsAsValidUtf8) {
    const std::pair<std::string_view, const char*> texts[] = {{"Ünïcode", "Ünïcode"},
                                                              {"a\xff"
                                                               "b",
                                                               "a\xEF\xBF\xBD"
                                                               "b"},
                                                              {"cut \xC3", "cut \xEF\xBF\xBD"},
                                                              {std::string_view("a\0b", 3), "a"},
                                                              {"", ""}};
    for (const auto& [bytes, pValid] : texts) {
        EXPECT_EQ(ValidText(bytes), pValid);
    }
    EXPECT_EQ(TextsOf(RecordWith(370, "\xff")).title, "\xEF\xBF\xBD");
}

TEST(CommonPart, OmitsTrailingZeros) {
    EXPECT_EQ(CommonPart(TYMediaData{}), "");
    EXPECT_EQ(CommonPart(RecordWith(2, "p")), std::string("\0\0p", 3));
    EXPECT_EQ(CommonPart(RecordWith(92, "\x05")), "");
    EXPECT_EQ(CommonPart(*RecordFromImage(CountingImage())).size(), 92U + 4688U);
}

TEST(CommonPart, IsComparedWithoutBeingBuilt) {
    for (const std::string& image : {CountingImage(), std::string(4800, '\0'), ImageWith(2, "p"),
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
}

TEST(CommonPart, HasAtMost4780Bytes) {
    EXPECT_TRUE(RecordFromCommonPart(std::string(4780, 'x')).has_value());
    EXPECT_FALSE(RecordFromCommonPart(std::string(4781, 'x')).has_value());
    EXPECT_FALSE(HasCommonPart(TYMediaData{}, std::string(4781, 'x')));
    EXPECT_EQ(ImageOf(*RecordFromCommonPart("")), std::string(4800, '\0'));
}

}  // namespace
