// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Encodings.h"

namespace {

constexpr std::string_view kBase32 = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567";
constexpr std::string_view kBase64Url =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

// Both encodings cut the bytes into groups of bits, the highest first, and fill up with zeros.
std::string Encode(std::span<const std::uint8_t> bytes, std::string_view alphabet, unsigned width) {
    std::string text;
    unsigned pending = 0;
    unsigned bits = 0;
    const unsigned mask = (1U << width) - 1;
    for (const std::uint8_t byte : bytes) {
        pending = (pending << 8 | byte) & 0xffff;
        for (bits += 8; bits >= width; bits -= width) {
            text += alphabet[pending >> (bits - width) & mask];
        }
    }
    if (bits > 0) {
        text += alphabet[pending << (width - bits) & mask];
    }
    return text;
}

std::optional<Bytes> Decode(std::string_view text, std::string_view alphabet, unsigned width) {
    Bytes bytes;
    unsigned pending = 0;
    unsigned bits = 0;
    for (const char letter : text) {
        const std::size_t value = alphabet.find(letter);
        if (value == std::string_view::npos) {
            return std::nullopt;
        }
        pending = (pending << width | static_cast<unsigned>(value)) & 0xffff;
        bits += width;
        if (bits >= 8) {
            bits -= 8;
            bytes.push_back(static_cast<std::uint8_t>(pending >> bits));
        }
    }
    // Another text that decodes to the same bytes would make two names of one key.
    if (Encode(bytes, alphabet, width) != text) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace

std::string EncodeBase32(std::span<const std::uint8_t> bytes) {
    return Encode(bytes, kBase32, 5);
}

std::optional<Bytes> DecodeBase32(std::string_view text) {
    return Decode(text, kBase32, 5);
}

std::string EncodeBase64Url(std::span<const std::uint8_t> bytes) {
    return Encode(bytes, kBase64Url, 6);
}

std::string EncodeBase64Url(std::string_view text) {
    return EncodeBase64Url(Bytes(text.begin(), text.end()));
}

std::optional<Bytes> DecodeBase64Url(std::string_view text) {
    return Decode(text, kBase64Url, 6);
}

std::uint16_t Crc16(std::span<const std::uint8_t> bytes) {
    unsigned crc = 0;
    for (const std::uint8_t byte : bytes) {
        crc ^= static_cast<unsigned>(byte) << 8;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) != 0 ? crc << 1 ^ 0x1021 : crc << 1;
        }
    }
    return static_cast<std::uint16_t>(crc);
}
