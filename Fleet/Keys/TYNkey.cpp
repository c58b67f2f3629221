// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYNkey.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

// Problem: NATS identifies operators, accounts and users by texts that say what they are, and that
// a typing error does not turn into another valid text.
//
// Idea: a public key is written as  kind (1 byte), key (32), CRC (2)  in base32. The kind's five
// high bits become the first letter. A seed has two bytes in front, because its first letter must
// be S and the kind must follow: the five bits of S, the five bits of the kind, and six zeros. The
// CRC covers all that stands before it, with the low byte first.

namespace {

constexpr unsigned kSeedPrefix = 18 << 3;
constexpr std::size_t kSeedHead = 2;
constexpr std::size_t kSignatureSize = 64;

using PKey = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
using Context = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;

void Require(bool worked, const char* pWhat) {
    if (!worked) {
        throw std::runtime_error(pWhat);
    }
}

PKey Load(std::span<const std::uint8_t> seed) {
    PKey key(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed.data(), seed.size()),
             &EVP_PKEY_free);
    Require(key != nullptr, "libcrypto cannot load an Ed25519 key");
    return key;
}

std::string EncodeWithCrc(Bytes bytes) {
    const std::uint16_t crc = Crc16(bytes);
    bytes.push_back(static_cast<std::uint8_t>(crc));
    bytes.push_back(static_cast<std::uint8_t>(crc >> 8));
    std::string text = EncodeBase32(bytes);
    OPENSSL_cleanse(bytes.data(), bytes.size());
    return text;
}

bool HasItsCrc(const Bytes& bytes) {
    const std::span all(bytes);
    return Crc16(all.first(all.size() - 2)) == (all[all.size() - 2] | all.back() << 8);
}

bool IsKind(unsigned value) {
    switch (static_cast<NkeyKind>(value)) {
        case NkeyKind::OPERATOR:
        case NkeyKind::ACCOUNT:
        case NkeyKind::USER:
            return true;
    }
    return false;
}

}  // namespace

CTYNkey CTYNkey::Make(NkeyKind kind) {
    CTYNkey key(kind);
    Require(RAND_priv_bytes(key.m_Seed.data(), kSeedSize) == 1, "there is no randomness for a key");
    return key;
}

CTYNkey CTYNkey::FromSeed(std::string_view text) {
    std::optional<Bytes> bytes = DecodeBase32(text);
    Require(bytes && bytes->size() == kSeedHead + kSeedSize + 2 && HasItsCrc(*bytes),
            "the text is no seed of a key");
    const unsigned head = static_cast<unsigned>(bytes->at(0)) << 8 | bytes->at(1);
    const unsigned kind = head >> 3 & 0xf8;
    Require((head >> 8 & 0xf8) == kSeedPrefix && IsKind(kind), "the text is no seed of a key");
    CTYNkey key(static_cast<NkeyKind>(kind));
    std::copy_n(bytes->begin() + kSeedHead, kSeedSize, key.m_Seed.begin());
    OPENSSL_cleanse(bytes->data(), bytes->size());
    return key;
}

CTYNkey::~CTYNkey() {
    OPENSSL_cleanse(m_Seed.data(), m_Seed.size());
}

std::string CTYNkey::Public() const {
    Bytes bytes(1 + kSeedSize);
    bytes[0] = static_cast<std::uint8_t>(m_Kind);
    std::size_t size = kSeedSize;
    Require(EVP_PKEY_get_raw_public_key(Load(m_Seed).get(), bytes.data() + 1, &size) == 1,
            "libcrypto cannot make a public key");
    return EncodeWithCrc(std::move(bytes));
}

std::string CTYNkey::Seed() const {
    const auto kind = static_cast<unsigned>(m_Kind);
    Bytes bytes{static_cast<std::uint8_t>(kSeedPrefix | kind >> 5),
                static_cast<std::uint8_t>((kind & 31) << 3)};
    bytes.insert(bytes.end(), m_Seed.begin(), m_Seed.end());
    return EncodeWithCrc(std::move(bytes));
}

Bytes CTYNkey::Sign(std::string_view text) const {
    const PKey key = Load(m_Seed);
    const Context context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    Bytes signature(kSignatureSize);
    std::size_t size = signature.size();
    const Bytes bytes(text.begin(), text.end());
    Require(
        context != nullptr &&
            EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
            EVP_DigestSign(context.get(), signature.data(), &size, bytes.data(), bytes.size()) == 1,
        "libcrypto cannot sign");
    return signature;
}
