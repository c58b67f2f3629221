// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ENCODINGS_H
#define TALLYRA_ENCODINGS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

/// @return base32 of RFC 4648, without padding
std::string EncodeBase32(std::span<const std::uint8_t> bytes);
/// @return nothing if the text is not what EncodeBase32 makes
std::optional<Bytes> DecodeBase32(std::string_view text);

/// @return base64 of RFC 4648 with the alphabet for URLs, without padding
std::string EncodeBase64Url(std::span<const std::uint8_t> bytes);
std::string EncodeBase64Url(std::string_view text);
/// @return nothing if the text is not what EncodeBase64Url makes
std::optional<Bytes> DecodeBase64Url(std::string_view text);

/// @return CRC-16 with the polynomial 0x1021 and the initial value 0
std::uint16_t Crc16(std::span<const std::uint8_t> bytes);

#endif  // TALLYRA_ENCODINGS_H
