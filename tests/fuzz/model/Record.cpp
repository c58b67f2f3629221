// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Record.h"

#include <algorithm>

namespace model {

namespace {

constexpr std::size_t kImageSize = 4800;

/// A number in an image, least significant byte first.
struct Number {
    std::int32_t Record::*field;
    std::size_t offset;
    std::size_t size;
};
constexpr Number kNumbers[] = {
    {&Record::playerID, 0, 1},  {&Record::networkType, 1, 1},   {&Record::event, 92, 1},
    {&Record::param1, 96, 4},   {&Record::param2, 100, 4},      {&Record::duration, 104, 4},
    {&Record::drmType, 112, 1}, {&Record::contentType, 113, 1},
};

struct Text {
    std::string Record::*field;
    std::size_t offset;
};
constexpr Text kTexts[] = {
    {&Record::playbackID, 2},   {&Record::serviceVersion, 27}, {&Record::serviceID, 39},
    {&Record::channelID, 114},  {&Record::title, 370},         {&Record::genre, 626},
    {&Record::customInfo, 694},
};

void Write(std::string& image, std::size_t offset, std::int32_t number, std::size_t size = 4) {
    for (std::size_t i = 0; i < size; ++i) {
        image[offset + i] = static_cast<char>(static_cast<std::uint32_t>(number) >> (8 * i));
    }
}

/// The UTF-8 characters: the first byte's range, the second byte's range, the number of bytes. The
/// others lie in 80 to BF.
struct Characters {
    std::uint8_t first, last, secondFirst, secondLast;
    std::size_t length;
};

constexpr Characters kCharacters[] = {
    {0x01, 0x7F, 0x00, 0x00, 1}, {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3},
    {0xE1, 0xEC, 0x80, 0xBF, 3}, {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3},
    {0xF0, 0xF0, 0x90, 0xBF, 4}, {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool Begins(std::string_view text, const Characters& row) {
    const auto isIn = [&](std::size_t at, std::uint8_t first, std::uint8_t last) {
        const auto byte = static_cast<std::uint8_t>(at < text.size() ? text[at] : 0);
        return byte >= first && byte <= last;
    };
    return isIn(0, row.first, row.last) &&
           (row.length < 2 || isIn(1, row.secondFirst, row.secondLast)) &&
           (row.length < 3 || isIn(2, 0x80, 0xBF)) && (row.length < 4 || isIn(3, 0x80, 0xBF));
}

/// Moves to the text after the first occurrence of a separator, if there is one.
bool SkipTo(std::string_view& text, std::string_view separator) {
    const std::size_t at = text.find(separator);
    const bool found = at != std::string_view::npos;
    text.remove_prefix(found ? at + separator.size() : 0);
    return found;
}

}  // namespace

std::string ImageOf(const Record& record) {
    std::string image(kImageSize, '\0');
    for (const auto& [field, offset, size] : kNumbers) {
        Write(image, offset, record.*field, size);
    }
    for (const auto& [field, offset] : kTexts) {
        image.replace(offset, (record.*field).size(), record.*field);
    }
    Write(image, 4792, record.time.sec);
    Write(image, 4796, record.time.nsec);
    return image;
}

std::string Cut(std::string_view text, std::size_t width) {
    return std::string(text.substr(0, std::min(text.find('\0'), width - 1)));
}

std::string Valid(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    std::string valid;
    while (!text.empty()) {
        const auto* pRow = std::find_if(std::begin(kCharacters), std::end(kCharacters),
                                        [&](const Characters& row) { return Begins(text, row); });
        const bool found = pRow != std::end(kCharacters);
        const std::size_t length = found ? pRow->length : 1;
        valid += found ? text.substr(0, length) : std::string_view("\xEF\xBF\xBD");
        text.remove_prefix(length);
    }
    return valid;
}

std::string PathOf(std::string_view url) {
    const bool isBare = SkipTo(url, "://") && !SkipTo(url, "/");
    return (isBare ? "://" : "") + std::string(url.substr(0, url.find('?')));
}

std::string KeptUrl(std::string_view url, bool pathOnly) {
    url = url.substr(0, url.find('\0'));
    return pathOnly ? PathOf(url) : std::string(url);
}

}  // namespace model
