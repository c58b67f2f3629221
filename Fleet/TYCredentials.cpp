// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYCredentials.h"

#include <nlohmann/json.hpp>

#include <fstream>
#include <stdexcept>

namespace {

std::string LineAfter(const std::string& path, const std::string& mark) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line) && line.find(mark) == line.npos) {
    }
    if (!std::getline(file, line) || line.empty()) {
        throw std::runtime_error(path + " does not contain credentials");
    }
    return line;
}

CTYNkey KeyIn(const std::string& path) {
    try {
        return CTYNkey::FromSeed(LineAfter(path, "BEGIN USER NKEY SEED"));
    } catch (const std::runtime_error&) {
        throw std::runtime_error(path + " does not contain credentials");
    }
}

}  // namespace

CTYCredentials::CTYCredentials(const std::string& path)
    : m_strToken(LineAfter(path, "BEGIN NATS USER JWT")), m_Key(KeyIn(path)) {}

std::string CTYCredentials::Name() const {
    const std::size_t begin = m_strToken.find('.') + 1;
    const auto payload = DecodeBase64Url(
        std::string_view(m_strToken).substr(begin, m_strToken.find('.', begin) - begin));
    const auto claims = payload ? nlohmann::json::parse(*payload, nullptr, false) : nullptr;
    const bool hasName =
        claims.is_object() && claims.contains("name") && claims["name"].is_string();
    return hasName ? claims["name"].get<std::string>() : std::string();
}
