// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPACKING_H
#define TALLYRA_TYPACKING_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

/// Writes numbers with seven bits in each byte, the lowest first. The sign is the lowest bit, so
/// that small numbers take one byte.
///
/// Threads: one.
class CTYPacker {
  public:
    void AddByte(std::uint8_t byte) { m_strBytes.push_back(static_cast<char>(byte)); }
    void Add(std::int64_t number) {
        auto rest = static_cast<std::uint64_t>(number) << 1U;
        rest = number < 0 ? ~rest : rest;
        for (; rest >= kMore; rest >>= kBits) {
            AddByte(static_cast<std::uint8_t>(rest | kMore));
        }
        AddByte(static_cast<std::uint8_t>(rest));
    }

    std::string Bytes() { return std::move(m_strBytes); }

  private:
    friend class CTYUnpacker;
    static constexpr std::uint64_t kMore = 0x80;
    static constexpr unsigned kBits = 7;

    std::string m_strBytes;
};

/// Reads what CTYPacker wrote. Throws std::runtime_error if the bytes end too early.
///
/// Threads: one.
class CTYUnpacker {
  public:
    explicit CTYUnpacker(std::string_view bytes) : m_Bytes(bytes) {}

    static void Expect(bool isSo) {
        if (!isSo) {
            throw std::runtime_error("the timeline of a playback is damaged");
        }
    }
    bool IsAtEnd() const { return m_Bytes.empty(); }
    std::uint8_t TakeByte() {
        Expect(!m_Bytes.empty());
        const auto byte = static_cast<std::uint8_t>(m_Bytes.front());
        m_Bytes.remove_prefix(1);
        return byte;
    }
    std::int64_t Take() {
        std::uint64_t number = 0;
        std::uint64_t byte = CTYPacker::kMore;
        for (unsigned shift = 0; (byte & CTYPacker::kMore) != 0; shift += CTYPacker::kBits) {
            Expect(shift < 64);
            byte = TakeByte();
            number |= (byte & (CTYPacker::kMore - 1)) << shift;
        }
        const std::uint64_t half = number >> 1U;
        return static_cast<std::int64_t>((number & 1U) != 0 ? ~half : half);
    }

  private:
    std::string_view m_Bytes;
};

#endif  // TALLYRA_TYPACKING_H
