// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "SiteCodes.h"

#include "Rows.h"
#include "TYEventCodes.h"

#include <glib.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

// GKeyFile gives up a whole file for one bad line, and does not tell its number. So each line is
// parsed as a key file of its own, behind the header of its group.

namespace {

constexpr const char* kEvents = "events";
constexpr const char* kErrors = "errors";
constexpr std::size_t kMostBytes = 1 << 20;
constexpr int kMostReported = 10;

struct FreeKeyFile {
    void operator()(GKeyFile* pFile) const { g_key_file_free(pFile); }
};
struct FreeText {
    void operator()(void* pText) const { g_free(pText); }
};
struct FreeTexts {
    void operator()(char** pTexts) const { g_strfreev(pTexts); }
};

[[noreturn]] void FailToRead(const std::string& path, const std::string& reason) {
    throw std::runtime_error("cannot read the codes in " + path + ": " + reason);
}

// Other files than regular ones may block, or never end.
std::string ReadText(const std::string& path) {
    constexpr std::string_view kByteOrderMark = "\xef\xbb\xbf";
    std::error_code missing;
    const auto status = std::filesystem::status(path, missing);
    if (!missing && std::filesystem::exists(status) && !is_regular_file(status)) {
        FailToRead(path, "it is no regular file");
    }
    std::ifstream file(path, std::ios::binary);
    std::string text(kMostBytes + 1, '\0');
    if (!file.is_open() ||
        !file.read(text.data(), static_cast<std::streamsize>(text.size())).eof()) {
        FailToRead(path, file.gcount() > 0 ? "it is larger than 1 MiB"
                                           : std::generic_category().message(errno));
    }
    text.resize(static_cast<std::size_t>(file.gcount()));
    // Neither a key file nor a message can hold a null character.
    std::ranges::replace(text, '\0', '\x01');
    return text.starts_with(kByteOrderMark) ? text.substr(kByteOrderMark.size()) : text;
}

std::unique_ptr<GKeyFile, FreeKeyFile> Parse(const std::string& text) {
    std::unique_ptr<GKeyFile, FreeKeyFile> pFile(g_key_file_new());
    const bool isValid = g_key_file_load_from_data(pFile.get(), text.data(), text.size(),
                                                   G_KEY_FILE_NONE, nullptr) != FALSE;
    return isValid ? std::move(pFile) : nullptr;
}

std::optional<int> CodeIn(const std::string& text, int first, int last) {
    int code = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, code);
    const bool isCode = error == std::errc() && pStopped == pEnd && code >= first && code <= last;
    return isCode ? std::optional(code) : std::nullopt;
}

// A number would be taken for a code, and other characters would need quotes in a shell.
bool IsName(const std::string& text) {
    const auto isPart = [](unsigned char c) { return std::isalnum(c) != 0 || c == '_'; };
    return !text.empty() && std::isdigit(static_cast<unsigned char>(text[0])) == 0 &&
           std::ranges::all_of(text, isPart);
}

std::string InCapitals(std::string text) {
    std::ranges::transform(text, text.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return text;
}

}  // namespace

CSiteCodes::CSiteCodes(const std::string& path, std::ostream& errors) {
    AddLines(path, ReadText(path), errors);
}

void CSiteCodes::AddLines(const std::string& path, const std::string& text, std::ostream& errors) {
    std::istringstream lines(text);
    int number = 0;
    int wrong = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        line.resize(line.find_last_not_of(" \t\r") + 1);
        const std::string error = AddLine(line);
        wrong += error.empty() ? 0 : 1;
        if (!error.empty() && wrong <= kMostReported) {
            errors << "tallyra: " << Printable(path) << ", line " << number << ": "
                   << Printable(error) << "; ignored\n";
        }
    }
    if (wrong > kMostReported) {
        errors << "tallyra: " << Printable(path) << ": " << wrong - kMostReported
               << " more lines ignored\n";
    }
}

std::optional<std::string> CSiteCodes::NameOf(int code) const {
    const auto found = m_Names.find(code);
    return found == m_Names.end() ? std::nullopt : std::optional(found->second);
}

std::optional<int> CSiteCodes::CodeOf(const std::string& name) const {
    const auto found =
        std::ranges::find_if(m_Names, [&](const auto& named) { return named.second == name; });
    return found == m_Names.end() ? std::nullopt : std::optional(found->first);
}

// Returns what is wrong with the line.
std::string CSiteCodes::AddLine(const std::string& line) {
    const auto begin = line.find_first_not_of(" \t");
    const bool isGroup = begin != std::string::npos && line[begin] == '[';
    const auto pFile = Parse(isGroup ? line : "[" + m_strGroup + "]\n" + line);
    if (isGroup) {
        const std::unique_ptr<char, FreeText> pName(
            pFile != nullptr ? g_key_file_get_start_group(pFile.get()) : nullptr);
        m_strGroup = pName != nullptr ? pName.get() : "";
        const bool isKnown = m_strGroup == kEvents || m_strGroup == kErrors;
        return isKnown ? "" : "'" + line + "' is neither [events] nor [errors]";
    }
    if (begin == std::string::npos || line[begin] == '#') {
        return "";
    }
    const std::unique_ptr<char*, FreeTexts> pKeys(
        pFile != nullptr ? g_key_file_get_keys(pFile.get(), m_strGroup.c_str(), nullptr, nullptr)
                         : nullptr);
    if (pKeys == nullptr || *pKeys == nullptr) {
        return "'" + line + "' is not CODE=NAME below [events] or [errors]";
    }
    const std::unique_ptr<char, FreeText> pName(
        g_key_file_get_value(pFile.get(), m_strGroup.c_str(), *pKeys, nullptr));
    return AddName(*pKeys, pName.get());
}

std::string CSiteCodes::AddName(const std::string& text, const std::string& name) {
    const bool isError = m_strGroup == kErrors;
    const int first = isError ? kFirstErrorCode : 0;
    const int last = isError ? kLastCode : kFirstErrorCode - 1;
    const auto code = CodeIn(text, first, last);
    if (!code) {
        return "'" + text + "' is not a code from " + std::to_string(first) + " to " +
               std::to_string(last);
    }
    if (!IsName(name)) {
        return "the name '" + name + "' has other characters than letters, digits and _";
    }
    const std::string capitals = InCapitals(name);
    if (NameOfCode(*code) || NameOf(*code)) {
        return "the code " + text + " already has a name";
    }
    if (CodeOfName(capitals) || CodeOf(capitals)) {
        return "the name " + capitals + " already has a code";
    }
    m_Names[*code] = capitals;
    return "";
}
