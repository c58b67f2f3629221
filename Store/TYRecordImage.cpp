// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYRecordImage.h"

#include <glib.h>

#include <cstring>

namespace {

// The common part: the bytes before the event and the content block. The event, both parameters and
// the time change with each record.
constexpr std::size_t kHeadSize = offsetof(TYMediaData, event);
constexpr std::size_t kTailBegin = offsetof(TYMediaData, content);
constexpr std::size_t kTailSize = sizeof(TYContentBlock);
constexpr std::size_t kCommonSize = kHeadSize + kTailSize;

template <std::size_t Size>
std::string FieldText(const char (&field)[Size]) {
    return ValidText(std::string_view(field, strnlen(field, Size)));
}

// Compares the range with itself shifted by one byte, so that memcmp does the work.
bool IsZero(std::string_view bytes) {
    return bytes.empty() ||
           (bytes.front() == '\0' && bytes.substr(1) == bytes.substr(0, bytes.size() - 1));
}

template <std::size_t Size>
bool HasEnd(const char (&field)[Size]) {
    return strnlen(field, Size) < Size;
}

}  // namespace

std::optional<TYMediaData> RecordFromImage(std::string_view image) {
    if (image.size() != sizeof(TYMediaData)) {
        return std::nullopt;
    }
    TYMediaData record;
    std::memcpy(&record, image.data(), sizeof(record));
    return record;
}

std::string_view ImageOf(const TYMediaData& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

TYRecordTexts TextsOf(const TYMediaData& record) {
    return {FieldText(record.playbackID),        FieldText(record.serviceVersion),
            FieldText(record.serviceID),         FieldText(record.content.channelID),
            FieldText(record.content.title),     FieldText(record.content.genre),
            FieldText(record.content.customInfo)};
}

bool HasTerminatedTexts(const TYMediaData& record) {
    return HasEnd(record.serviceVersion) && HasEnd(record.serviceID) &&
           HasEnd(record.content.channelID) && HasEnd(record.content.title) &&
           HasEnd(record.content.genre) && HasEnd(record.content.customInfo);
}

std::string ValidText(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    if (g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE) {
        return std::string(text);
    }
    char* pValid = g_utf8_make_valid(text.data(), static_cast<gssize>(text.size()));
    std::string valid(pValid);
    g_free(pValid);
    return valid;
}

std::string CommonPart(const TYMediaData& record) {
    const std::string_view image = ImageOf(record);
    std::string common(image.substr(0, kHeadSize));
    common += image.substr(kTailBegin, kTailSize);
    common.resize(common.find_last_not_of('\0') + 1);
    return common;
}

bool HasCommonPart(const TYMediaData& record, std::string_view common) {
    const std::string_view image = ImageOf(record);
    const std::string_view tail = image.substr(kTailBegin, kTailSize);
    const std::size_t inHead = std::min(kHeadSize, common.size());
    const std::size_t inTail = common.size() - inHead;
    return common.size() <= kCommonSize && image.substr(0, inHead) == common.substr(0, inHead) &&
           IsZero(image.substr(inHead, kHeadSize - inHead)) &&
           tail.substr(0, inTail) == common.substr(inHead) && IsZero(tail.substr(inTail));
}

std::optional<TYMediaData> RecordFromCommonPart(std::string_view common) {
    if (common.size() > kCommonSize) {
        return std::nullopt;
    }
    std::string image(sizeof(TYMediaData), '\0');
    image.replace(0, std::min(kHeadSize, common.size()), common.substr(0, kHeadSize));
    if (common.size() > kHeadSize) {
        image.replace(kTailBegin, common.size() - kHeadSize, common.substr(kHeadSize));
    }
    return RecordFromImage(image);
}
