// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYForwardMessage.h"

#include "TYRecordImage.h"
#include "TYSubjects.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cstring>
#include <new>
#include <string_view>

// A message is what one device says about a range of its entries:
//
//   subject   tallyra.records.<device>.<epoch>; the server checks the device
//   headers   Nats-Msg-Id       device/epoch/first-last: lets the server drop a repetition
//             Tallyra-After     id of the last entry of the batch before
//             Tallyra-Arrivals  <arrival>*<records>, and for each later arrival
//             +<difference>*<records> Tallyra-Origin    <epoch>/<first id>, of records that were
//             recovered
//   body      16 bytes: version, 0, number of records, first 4 bytes of the epoch, first id
//             one zstd frame: for each record, length of its URL, URL, image
//
// Numbers are little-endian. Nothing of it is trusted: a device may be hostile, and a disk may have
// changed a byte.
//
// Always true of what Decode returns:
// - Device and epoch are those of the subject, and well-formed. Ids are positive, and after <
// first.
// - It has at most kMostRecords records, and as many URLs and arrivals. Decompressing took no more
//   memory than these can have.

namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kHeaderSize = 16;
constexpr std::size_t kEpochBytes = 4;
constexpr std::uint32_t kNoUrl = UINT32_MAX;
constexpr std::size_t kMostPlainBytes =
    CTYForwardMessage::kMostRecords * (sizeof(TYMediaData) + sizeof(kNoUrl)) +
    CTYForwardMessage::kMostUrlBytes;

static_assert(std::endian::native == std::endian::little, "images are sent as they are in memory");

template <class Number>
void Append(std::string& out, Number number) {
    out.append(reinterpret_cast<const char*>(&number), sizeof(number));
}

template <class Number>
Number Take(std::string_view& in) {
    Number number{};
    if (in.size() < sizeof(number)) {
        throw CTYBadMessage("cut off");
    }
    std::memcpy(&number, in.data(), sizeof(number));
    in.remove_prefix(sizeof(number));
    return number;
}

std::string_view TakeBytes(std::string_view& in, std::size_t size) {
    if (in.size() < size) {
        throw CTYBadMessage("cut off");
    }
    const std::string_view bytes = in.substr(0, size);
    in.remove_prefix(size);
    return bytes;
}

/// Takes a number from the front of a text.
std::int64_t TakeNumber(std::string_view& text, const char* pWhat) {
    std::int64_t number = 0;
    const auto [pEnd, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) {
        throw CTYBadMessage(pWhat);
    }
    text.remove_prefix(static_cast<std::size_t>(pEnd - text.data()));
    return number;
}

bool TakeMark(std::string_view& text, char mark) {
    const bool isThere = text.starts_with(mark);
    text.remove_prefix(isThere ? 1 : 0);
    return isThere;
}

std::array<char, kEpochBytes> FirstBytesOf(std::string_view epoch) {
    std::array<char, kEpochBytes> bytes{};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        unsigned int byte = 0;
        std::from_chars(epoch.data() + 2 * i, epoch.data() + 2 * i + 2, byte, 16);
        bytes.at(i) = static_cast<char>(byte);
    }
    return bytes;
}

std::string ArrivalsText(const std::vector<std::int64_t>& arrivals) {
    std::string text;
    for (std::size_t i = 0; i < arrivals.size();) {
        const std::size_t begin = i;
        while (i < arrivals.size() && arrivals[i] == arrivals[begin]) {
            ++i;
        }
        const std::int64_t previous = begin == 0 ? 0 : arrivals[begin - 1];
        // Unsigned, because the difference of two clocks that are off may not fit.
        const auto difference = static_cast<std::int64_t>(
            static_cast<std::uint64_t>(arrivals[begin]) - static_cast<std::uint64_t>(previous));
        text +=
            (begin == 0 ? "" : "+") + std::to_string(difference) + '*' + std::to_string(i - begin);
    }
    return text;
}

std::vector<std::int64_t> ArrivalsOf(std::string_view text, std::size_t count) {
    std::vector<std::int64_t> arrivals;
    std::int64_t arrival = 0;
    if (count == 0) {
        return arrivals;
    }
    do {
        arrival =
            static_cast<std::int64_t>(static_cast<std::uint64_t>(arrival) +
                                      static_cast<std::uint64_t>(TakeNumber(text, "bad arrivals")));
        const std::int64_t records =
            TakeMark(text, '*') ? TakeNumber(text, "bad arrivals") : std::int64_t{0};
        if (records < 1 || records > static_cast<std::int64_t>(count - arrivals.size())) {
            throw CTYBadMessage("bad arrivals");
        }
        arrivals.insert(arrivals.end(), static_cast<std::size_t>(records), arrival);
    } while (TakeMark(text, '+'));
    if (!text.empty() || arrivals.size() != count) {
        throw CTYBadMessage("bad arrivals");
    }
    return arrivals;
}

std::optional<TYForwardedBatch::Origin> OriginOf(std::string_view text, std::size_t count) {
    if (text.empty()) {
        return std::nullopt;
    }
    TYForwardedBatch::Origin origin;
    origin.epoch = text.substr(0, text.find('/'));
    text.remove_prefix(origin.epoch.size());
    if (!CTYForwardMessage::IsEpoch(origin.epoch) || !TakeMark(text, '/')) {
        throw CTYBadMessage("bad origin");
    }
    origin.first = TakeNumber(text, "bad origin");
    if (!text.empty() || origin.first < 1 ||
        origin.first > INT64_MAX - static_cast<std::int64_t>(count)) {
        throw CTYBadMessage("bad origin");
    }
    return origin;
}

void TakeRecords(std::string_view plain, std::size_t count, TYForwardedBatch& batch) {
    batch.records.reserve(count);
    batch.urls.reserve(count);
    while (batch.records.size() < count) {
        const auto length = Take<std::uint32_t>(plain);
        batch.urls.push_back(
            length == kNoUrl ? std::nullopt : std::optional<std::string>(TakeBytes(plain, length)));
        batch.records.push_back(*RecordFromImage(TakeBytes(plain, sizeof(TYMediaData))));
    }
    if (!plain.empty()) {
        throw CTYBadMessage("too long");
    }
}

}  // namespace

bool CTYForwardMessage::IsEpoch(std::string_view text) {
    constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    constexpr std::string_view kDigits = "0123456789abcdef";
    return std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), [&](char c, char form) {
        return form == '-' ? c == '-' : kDigits.find(c) != kDigits.npos;
    });
}

CTYForwardMessage::CTYForwardMessage()
    : m_pCompressor(ZSTD_createCCtx()), m_pDecompressor(ZSTD_createDCtx()) {
    if (m_pCompressor == nullptr || m_pDecompressor == nullptr) {
        throw std::bad_alloc();
    }
}

TYMessage CTYForwardMessage::Encode(const TYForwardedBatch& batch) {
    m_strPlain.clear();
    for (std::size_t i = 0; i < batch.records.size(); ++i) {
        const std::optional<std::string>& url = batch.urls[i];
        Append(m_strPlain, url ? static_cast<std::uint32_t>(url->size()) : kNoUrl);
        m_strPlain += url.value_or("");
        m_strPlain += ImageOf(batch.records[i]);
    }
    TYMessage message{TYSubjects::Records(batch.device, batch.epoch)};
    message.headers = {
        {"Nats-Msg-Id", batch.device + '/' + batch.epoch + '/' + std::to_string(batch.first) + '-' +
                            std::to_string(batch.Last())},
        {"Tallyra-After", std::to_string(batch.after)},
        {"Tallyra-Arrivals", ArrivalsText(batch.arrivals)}};
    if (batch.origin) {
        message.headers.emplace_back(
            "Tallyra-Origin", batch.origin->epoch + '/' + std::to_string(batch.origin->first));
    }
    std::string& body = message.body;
    Append(body, kVersion);
    Append(body, std::uint8_t{0});
    Append(body, static_cast<std::uint16_t>(batch.records.size()));
    const auto epoch = FirstBytesOf(batch.epoch);
    body.append(epoch.data(), epoch.size());
    Append(body, static_cast<std::uint64_t>(batch.first));
    body.resize(kHeaderSize + ZSTD_compressBound(m_strPlain.size()));
    const std::size_t size =
        ZSTD_compressCCtx(m_pCompressor.get(), body.data() + kHeaderSize, body.size() - kHeaderSize,
                          m_strPlain.data(), m_strPlain.size(), kCompression);
    if (ZSTD_isError(size) != 0) {
        throw std::runtime_error(ZSTD_getErrorName(size));
    }
    body.resize(kHeaderSize + size);
    return message;
}

TYForwardedBatch CTYForwardMessage::DecodeRange(const TYMessage& message, std::int64_t& last) {
    TYForwardedBatch batch;
    batch.device = TYSubjects::Part(message.subject, 2);
    batch.epoch = TYSubjects::Part(message.subject, 3);
    std::string_view body = message.body;
    const auto version = Take<std::uint8_t>(body);
    const auto zero = Take<std::uint8_t>(body);
    const auto count = Take<std::uint16_t>(body);
    const std::string_view epoch = TakeBytes(body, kEpochBytes);
    batch.first = Take<std::int64_t>(body);
    if (version != kVersion || zero != 0) {
        throw CTYBadMessage("unknown version");
    }
    if (!TYSubjects::IsDeviceName(batch.device) || !IsEpoch(batch.epoch) ||
        !std::ranges::equal(epoch, FirstBytesOf(batch.epoch))) {
        throw CTYBadMessage("bad epoch");
    }
    const std::string afterText = message.Header("Tallyra-After");
    std::string_view after = afterText;
    batch.after = TakeNumber(after, "bad range");
    if (count > kMostRecords || !after.empty() || batch.after < 0 || batch.first <= batch.after ||
        batch.first > INT64_MAX - count) {
        throw CTYBadMessage("bad range");
    }
    last = batch.first + count - 1;
    return batch;
}

TYForwardedBatch CTYForwardMessage::Decode(const TYMessage& message) {
    std::int64_t last = 0;
    TYForwardedBatch batch = DecodeRange(message, last);
    const auto count = static_cast<std::size_t>(last - batch.first + 1);
    batch.arrivals = ArrivalsOf(message.Header("Tallyra-Arrivals"), count);
    batch.origin = OriginOf(message.Header("Tallyra-Origin"), count);
    const std::string_view frame = std::string_view(message.body).substr(kHeaderSize);
    m_strPlain.resize(kMostPlainBytes);
    const std::size_t size = ZSTD_decompressDCtx(m_pDecompressor.get(), m_strPlain.data(),
                                                 m_strPlain.size(), frame.data(), frame.size());
    if (ZSTD_isError(size) != 0) {
        throw CTYBadMessage("not decompressible");
    }
    TakeRecords(std::string_view(m_strPlain).substr(0, size), count, batch);
    return batch;
}
