// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Target "image": the decoder accepts any image of a record, and the command any file of them.

#include "Commands.h"
#include "TYRecordImage.h"
#include "Target.h"

#include <glib.h>

#include <cstring>
#include <iostream>
#include <sstream>
#include <string_view>

namespace {

void CheckText(const std::string& text, std::size_t width) {
    Require(g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE, "texts are UTF-8");
    // An invalid byte becomes the 3 bytes of U+FFFD.
    Require(text.size() <= 3 * width, "texts are bounded by their field");
}

void CheckTexts(const TYMediaData& record) {
    const TYRecordTexts texts = TextsOf(record);
    CheckText(texts.playbackID, sizeof(record.playbackID));
    CheckText(texts.serviceVersion, sizeof(record.serviceVersion));
    CheckText(texts.serviceID, sizeof(record.serviceID));
    CheckText(texts.channelID, sizeof(record.content.channelID));
    CheckText(texts.title, sizeof(record.content.title));
    CheckText(texts.genre, sizeof(record.content.genre));
    CheckText(texts.customInfo, sizeof(record.content.customInfo));
    HasTerminatedTexts(record);
}

// A record's common part together with the columns of its row is the whole record.
void CheckCommonPart(const TYMediaData& record) {
    const std::string common = CommonPart(record);
    Require(HasCommonPart(record, common), "a record has its common part");
    Require(!HasCommonPart(record, common + "x"), "a longer common part belongs to another record");
    std::optional<TYMediaData> again = RecordFromCommonPart(common);
    Require(again.has_value(), "a record is restored from its common part");
    again->event = record.event;
    std::memcpy(again->padding2, record.padding2, sizeof(record.padding2));
    again->param1 = record.param1;
    again->param2 = record.param2;
    again->time = record.time;
    Require(ImageOf(*again) == ImageOf(record), "no part of a record is lost");
}

void Decode(const std::string& images, Format format) {
    std::istringstream in(images);
    std::ostringstream out;
    std::ostringstream errors;
    std::streambuf* pBefore = std::cin.rdbuf(in.rdbuf());
    std::cin.clear();
    const Context context{"", format, out, errors, Sink::PROGRAM, 0};
    const int status = Decode(context, "-");
    std::cin.rdbuf(pBefore);
    const bool whole = images.size() % sizeof(TYMediaData) == 0;
    Require(status == (whole ? EXIT_OK : EXIT_FAILED), "only whole records are decoded");
    Require(whole == errors.str().empty(), "leftover bytes are an error message");
    Require(g_utf8_validate_len(out.str().data(), out.str().size(), nullptr) != FALSE,
            "the output is UTF-8");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size) {
    // The first byte selects the format. The second pads the rest to whole images, since few inputs
    // have the size of one.
    constexpr Format kFormats[] = {Format::TABLE, Format::JSON, Format::CSV};
    if (size < 2) {
        return 0;
    }
    std::string image(reinterpret_cast<const char*>(pData) + 2, size - 2);
    RecordFromCommonPart(image);
    ValidText(image);
    if (pData[1] % 4 != 0) {
        const std::size_t whole = (image.size() / sizeof(TYMediaData) + 1) * sizeof(TYMediaData);
        image.resize(whole, static_cast<char>(pData[1]));
    }
    if (const auto record = RecordFromImage(image)) {
        CheckTexts(*record);
        CheckCommonPart(*record);
    }
    Decode(image, kFormats[pData[0] % 3]);
    return 0;
}
