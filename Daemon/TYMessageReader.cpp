// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYMessageReader.h"

#include "TYDbusError.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

// Problem: peers may send messages as large as the bus allows, 32 MiB, and as many as they like.
// The service has to read them to get at the messages behind them. A message that is refused,
// because of its size or because its sender sends too much, must cost next to nothing.
//
// Idea: bytes are read into one buffer that holds the largest message that the service accepts. The
// fixed part of a header says how long a message is. libdbus parses the header alone, without the
// body, which is enough to decide about the message and to answer it. Only if the message is
// accepted does libdbus copy, parse and validate all of it (TYArrival::Parse). A message that does
// not fit into the buffer is dropped while it arrives.
//
// A message without a body must not have a signature. So in the copy of the header, the length of
// the body is 0, and the field of the signature has a code that D-Bus does not define: readers
// ignore such fields.
//
// Always true:
// - m_nBegin <= m_nEnd <= m_Bytes.size(). At m_nBegin begins a message, after m_nSkip bytes.
// - The buffer never grows.

namespace {

constexpr std::size_t kFixedHeader = 16;
// As much of a body as its receiver may look at, if the message is too large.
constexpr std::size_t kGlimpse = 256;
constexpr std::size_t kBodyLengthAt = 4;
constexpr std::size_t kFieldsLengthAt = 12;
constexpr char kSignatureField = 8;
constexpr char kUndefinedField = '\xff';
// Bytes that are read at once, besides the largest message.
constexpr std::size_t kReadAhead = std::size_t{256} << 10;

std::size_t AlignedTo(std::size_t offset, std::size_t alignment) {
    return (offset + alignment - 1) / alignment * alignment;
}

// A header in the byte order of its sender. Reads outside of it yield 0.
class CHeader {
  public:
    explicit CHeader(std::string_view bytes) : m_Bytes(bytes) {}

    std::size_t NumberAt(std::size_t offset) const {
        std::size_t number = 0;
        for (std::size_t i = 0; i < sizeof(std::uint32_t); ++i) {
            const std::size_t place = ByteAt(0) == 'l' ? sizeof(std::uint32_t) - 1 - i : i;
            number = number << 8 | static_cast<unsigned char>(ByteAt(offset + place));
        }
        return number;
    }
    char ByteAt(std::size_t offset) const {
        return offset < m_Bytes.size() ? m_Bytes[offset] : '\0';
    }
    std::size_t Size() const { return m_Bytes.size(); }

    /// @return where the field of the signature begins; Size() if there is none
    std::size_t FindSignature() const {
        std::size_t field = kFixedHeader;
        while (field < Size() && ByteAt(field) != kSignatureField) {
            field = AlignedTo(EndOfField(field), 8);
        }
        return std::min(field, Size());
    }

    /// @return the signature in the field that begins there
    std::string_view SignatureAt(std::size_t field) const {
        // Code, signature "g" of the variant, and the length.
        constexpr std::size_t kLengthAt = 4;
        const auto length = static_cast<unsigned char>(ByteAt(field + kLengthAt));
        const std::size_t begin = std::min(field + kLengthAt + 1, Size());
        return m_Bytes.substr(begin, length);
    }

  private:
    // A field is a code and a variant: of a string or object path, a number, or a signature.
    std::size_t EndOfField(std::size_t field) const {
        const std::size_t value = field + 4;
        switch (ByteAt(field + 2)) {
            case DBUS_TYPE_STRING:
            case DBUS_TYPE_OBJECT_PATH:
                return value + sizeof(std::uint32_t) + NumberAt(value) + 1;
            case DBUS_TYPE_UINT32:
                return value + sizeof(std::uint32_t);
            case DBUS_TYPE_SIGNATURE:
                return value + 1 + static_cast<unsigned char>(ByteAt(value)) + 1;
            default:
                return Size();
        }
    }

    std::string_view m_Bytes;
};

// Parses a header as a message without a body.
TYMessagePtr ParseHeader(std::string bytes, std::size_t signatureField) {
    CTYDbusError error;
    if (signatureField < bytes.size()) {
        bytes[signatureField] = kUndefinedField;
    }
    std::fill_n(bytes.begin() + kBodyLengthAt, sizeof(std::uint32_t), '\0');
    return TYMessagePtr(
        dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), error.Get()));
}

}  // namespace

TYMessagePtr TYArrival::Parse() const {
    CTYDbusError error;
    return bytes.empty() ? nullptr
                         : TYMessagePtr(dbus_message_demarshal(
                               bytes.data(), static_cast<int>(bytes.size()), error.Get()));
}

CTYMessageReader::CTYMessageReader(std::size_t maxMessage)
    : m_nMaxMessage(maxMessage), m_Bytes(std::max(maxMessage, kMaxHeader) + kReadAhead) {}

std::span<char> CTYMessageReader::Space() {
    Skip(0);
    if (m_nBegin == m_nEnd) {
        m_nBegin = m_nEnd = 0;
    } else if (m_Bytes.size() - m_nEnd < kReadAhead / 2) {
        std::memmove(m_Bytes.data(), Begin(), Size());
        m_nEnd = Size();
        m_nBegin = 0;
    }
    return std::span(m_Bytes).subspan(m_nEnd);
}

void CTYMessageReader::Take(std::size_t count) {
    m_nEnd += count;
}

// Drops the given number of bytes more, as far as they have arrived.
void CTYMessageReader::Skip(std::size_t count) {
    m_nSkip += count;
    const std::size_t now = std::min(m_nSkip, Size());
    m_nBegin += now;
    m_nSkip -= now;
}

std::optional<TYArrival> CTYMessageReader::Next() {
    Skip(0);
    while (!m_bBroken && Size() >= kFixedHeader) {
        const int needed = dbus_message_demarshal_bytes_needed(Begin(), static_cast<int>(Size()));
        const auto size = static_cast<std::size_t>(std::max(needed, 0));
        const std::size_t header =
            AlignedTo(kFixedHeader + CHeader({Begin(), kFixedHeader}).NumberAt(kFieldsLengthAt), 8);
        m_bBroken = needed <= 0 || size < header;
        if (m_bBroken || !HasArrived(size, header)) {
            break;
        }
        if (size > m_nMaxMessage && header > kMaxHeader) {
            Skip(size);
            continue;
        }
        TYArrival arrival = Cut(size, header);
        m_bBroken = arrival.header == nullptr;
        return m_bBroken ? std::nullopt : std::optional(std::move(arrival));
    }
    return std::nullopt;
}

// A message that is too large has arrived when there is enough of it to answer it.
bool CTYMessageReader::HasArrived(std::size_t size, std::size_t header) const {
    if (size <= m_nMaxMessage) {
        return Size() >= size;
    }
    return header > kMaxHeader || Size() >= header + kGlimpse;
}

TYArrival CTYMessageReader::Cut(std::size_t size, std::size_t header) {
    const std::string_view all(Begin(), std::min(size, Size()));
    const CHeader fields(all.substr(0, header));
    const std::size_t signature = fields.FindSignature();
    TYArrival arrival;
    arrival.header = ParseHeader(std::string(all.substr(0, header)), signature);
    arrival.signature = fields.SignatureAt(signature);
    arrival.bodySize = size - header;
    arrival.bytes = size <= m_nMaxMessage ? all : "";
    arrival.body = all.substr(header);
    // The views stay valid until Space moves what follows.
    m_nSkip = size;
    return arrival;
}
