// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYNKEY_H
#define TALLYRA_TYNKEY_H

#include "Encodings.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

/// What a key speaks for. The value is the first byte of its encoded public half, which makes the
/// text begin with O, A or U.
enum class NkeyKind : std::uint8_t { OPERATOR = 14 << 3, ACCOUNT = 0, USER = 20 << 3 };

/// An Ed25519 key pair and its texts as NATS writes them: base32 over a byte for the kind, the key
/// and a CRC. The private half is the seed, whose text begins with S.
///
/// Threads: const functions may run on any thread.
class CTYNkey {
  public:
    static constexpr std::size_t kSeedSize = 32;

    /// @return a new random key
    /// @throws std::runtime_error  if there is no randomness
    static CTYNkey Make(NkeyKind kind);
    /// @throws std::runtime_error  if the text is no seed
    static CTYNkey FromSeed(std::string_view text);
    /// Wipes the seed.
    ~CTYNkey();
    CTYNkey(CTYNkey&&) = default;
    CTYNkey(const CTYNkey&) = delete;
    CTYNkey& operator=(const CTYNkey&) = delete;

    std::string Public() const;
    std::string Seed() const;
    Bytes Sign(std::string_view text) const;

  private:
    using SeedBytes = std::array<std::uint8_t, kSeedSize>;
    explicit CTYNkey(NkeyKind kind) : m_Kind(kind) {}

    NkeyKind m_Kind;
    SeedBytes m_Seed{};
};

#endif  // TALLYRA_TYNKEY_H
