// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "EventNames.h"

#include "SiteCodes.h"
#include "TYEventCodes.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iostream>

namespace {

constexpr const char* kSystemCodes = "/etc/tallyra/codes.conf";

// Names are a convenience: without them, the codes are printed.
CSiteCodes ReadDefaultCodes() {
    const char* pNamed = std::getenv("TALLYRA_CODES");
    const bool isNamed = pNamed != nullptr && *pNamed != '\0';
    std::error_code ignored;
    if (!isNamed && !std::filesystem::exists(kSystemCodes, ignored)) {
        return {};
    }
    try {
        return {isNamed ? pNamed : kSystemCodes, std::cerr};
    } catch (const std::exception& error) {
        std::cerr << "tallyra: " << error.what() << "\n";
        return {};
    }
}

std::optional<CSiteCodes>& ToldCodes() {
    static std::optional<CSiteCodes> codes;
    return codes;
}

const CSiteCodes& SiteCodes() {
    std::optional<CSiteCodes>& codes = ToldCodes();
    if (!codes) {
        codes = ReadDefaultCodes();
    }
    return *codes;
}

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

void UseSiteCodes(const std::string& path, std::ostream& errors) {
    ToldCodes() = CSiteCodes(path, errors);
}

std::string EventName(int code) {
    if (const auto name = NameOfCode(code)) {
        return std::string(*name);
    }
    return SiteCodes().NameOf(code).value_or(std::to_string(code));
}

std::optional<int> EventCode(const std::string& nameOrNumber) {
    int code = 0;
    const char* pEnd = nameOrNumber.data() + nameOrNumber.size();
    const auto [pStopped, error] = std::from_chars(nameOrNumber.data(), pEnd, code);
    if (error != std::errc() || pStopped != pEnd) {
        const std::string name = ToUpper(nameOrNumber);
        const auto known = CodeOfName(name);
        return known ? known : SiteCodes().CodeOf(name);
    }
    if (code < 0 || code > kLastCode) {
        return std::nullopt;
    }
    return code;
}

std::vector<std::string> EventNames() {
    std::vector<std::string> names;
    names.reserve(kCodeNames.size());
    for (const TYCodeName& known : kCodeNames) {
        names.emplace_back(known.name);
    }
    for (const auto& [code, name] : SiteCodes().All()) {
        names.push_back(name);
    }
    return names;
}

std::string EventKind(int code) {
    if (IsAboutCalls(code)) {
        return "remark";
    }
    if (IsError(code)) {
        return "error";
    }
    return NameOfCode(code) || SiteCodes().NameOf(code) ? "event" : "free-form";
}

std::string SqlForErrors(const std::string& column) {
    return "(" + column + " >= " + std::to_string(kFirstErrorCode) + " AND " + column +
           " NOT BETWEEN " + std::to_string(TY_ERROR_URL_CHANGED) + " AND " +
           std::to_string(TY_ERROR_DUPLICATED_RENDER_START) + ")";
}
