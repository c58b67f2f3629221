// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_BYTES_H
#define TALLYRA_TESTS_FUZZ_BYTES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// Takes a fuzzer's bytes apart. Behind their end everything is zero or empty.
class CBytes {
  public:
    CBytes(const std::uint8_t* pData, std::size_t size)
        : m_Rest(reinterpret_cast<const char*>(pData), size) {}

    bool AtEnd() const { return m_Rest.empty(); }
    std::uint8_t Byte();
    std::int32_t Int();
    /// @return as many bytes as the next two say, at the most
    std::string_view Some();
    /// @return as Some, without what D-Bus takes for no text
    std::string Text();
    /// @return all that is left
    std::string_view Rest() const { return m_Rest; }

  private:
    std::string_view m_Rest;
};

#endif  // TALLYRA_TESTS_FUZZ_BYTES_H
