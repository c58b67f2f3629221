// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Token.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace {

constexpr std::size_t kDigestSize = 32;

// Tells the tokens of a subject apart. The servers only show it.
std::string IdentifierOf(const std::string& claims) {
    Bytes digest(kDigestSize);
    if (EVP_Digest(claims.data(), claims.size(), digest.data(), nullptr, EVP_sha512_256(),
                   nullptr) != 1) {
        throw std::runtime_error("libcrypto cannot compute SHA-512/256");
    }
    return EncodeBase32(digest);
}

}  // namespace

std::string SignToken(nlohmann::json claims, const CTYNkey& issuer, std::int64_t now) {
    claims["iss"] = issuer.Public();
    claims["iat"] = now;
    claims.erase("jti");
    claims["jti"] = IdentifierOf(claims.dump());
    const std::string text = EncodeBase64Url(R"({"typ":"JWT","alg":"ed25519-nkey"})") + "." +
                             EncodeBase64Url(claims.dump());
    return text + "." + EncodeBase64Url(issuer.Sign(text));
}

nlohmann::json ClaimsOf(std::string_view token) {
    const std::size_t begin = token.find('.') + 1;
    const std::size_t end = token.find('.', begin);
    std::optional<Bytes> bytes;
    if (begin != 0 && end != std::string_view::npos) {
        bytes = DecodeBase64Url(token.substr(begin, end - begin));
    }
    nlohmann::json claims =
        bytes ? nlohmann::json::parse(*bytes, nullptr, false) : nlohmann::json();
    if (!claims.is_object()) {
        throw std::runtime_error("the text is no token");
    }
    return claims;
}
