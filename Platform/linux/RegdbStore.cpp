// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "RegdbStore.h"

#include "regdb.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <filesystem>

namespace {

std::string StorePath() {
    const char* path = std::getenv("REGDB_FILE");
    if (path != nullptr && *path != '\0') {
        return path;
    }
    if (geteuid() == 0) {
        return "/var/lib/regdb/regdb.ini";
    }
    return std::string(g_get_user_state_dir()) + "/regdb/regdb.ini";
}

int CodeOf(const GError* pError) {
    if (g_error_matches(pError, G_FILE_ERROR, G_FILE_ERROR_NOENT) != FALSE) {
        return REGDB_ERROR_NO_FILE;
    }
    for (const int lack : {G_FILE_ERROR_MFILE, G_FILE_ERROR_NFILE, G_FILE_ERROR_NOMEM}) {
        if (g_error_matches(pError, G_FILE_ERROR, lack) != FALSE) {
            return REGDB_ERROR_SYSTEM;
        }
    }
    return pError->domain == G_FILE_ERROR ? REGDB_ERROR_UNREADABLE : REGDB_ERROR_MALFORMED_FILE;
}

bool HasControlCharacter(const std::string& text) {
    for (const char character : text) {
        if (g_ascii_iscntrl(character) != FALSE) {
            return true;
        }
    }
    return false;
}

}  // namespace

CRegdbStore::CRegdbStore() : m_strPath(StorePath()) {}

std::optional<std::pair<std::string, std::string>> CRegdbStore::Split(const std::string& key) {
    const std::size_t slash = key.rfind('/');
    if (slash == std::string::npos || HasControlCharacter(key)) {
        return std::nullopt;
    }
    std::string group = key.substr(0, slash);
    std::string name = key.substr(slash + 1);
    if (group.empty() || name.empty() || group.find_first_of("[]") != std::string::npos ||
        name.find_first_of("=[]") != std::string::npos || name.front() == '#' ||
        name.front() == ' ' || name.back() == ' ') {
        return std::nullopt;
    }
    return std::pair(std::move(group), std::move(name));
}

int CRegdbStore::Load(GlibPtr<GKeyFile>* pFile) const {
    pFile->reset(g_key_file_new());
    GError* pError = nullptr;
    gchar* pText = nullptr;
    gsize length = 0;
    const bool read = g_file_get_contents(m_strPath.c_str(), &pText, &length, &pError) != FALSE;
    const GlibPtr<gchar> text(pText);
    const auto flags =
        static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
    if (read && g_key_file_load_from_data(pFile->get(), text.get(), length, flags, &pError)) {
        return REGDB_ERROR_NONE;
    }
    const GlibPtr<GError> error(pError);
    return CodeOf(error.get());
}

int CRegdbStore::ReadText(const std::string& key, std::string* pText) const {
    const auto parts = Split(key);
    if (!parts) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    GlibPtr<GKeyFile> file;
    if (const int result = Load(&file); result != REGDB_ERROR_NONE) {
        return result;
    }
    const GlibPtr<gchar> text(
        g_key_file_get_value(file.get(), parts->first.c_str(), parts->second.c_str(), nullptr));
    if (text == nullptr) {
        return REGDB_ERROR_NO_KEY;
    }
    *pText = text.get();
    return REGDB_ERROR_NONE;
}

int CRegdbStore::Read(const std::string& key, int* pValue) const {
    std::string text;
    if (const int result = ReadText(key, &text); result != REGDB_ERROR_NONE) {
        return result;
    }
    int value = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStop, error] = std::from_chars(text.data(), pEnd, value);
    if (error != std::errc() || pStop != pEnd) {
        return REGDB_ERROR_MALFORMED_VALUE;
    }
    *pValue = value;
    return REGDB_ERROR_NONE;
}

std::optional<std::string> CRegdbStore::Text(const std::string& key) const {
    std::string text;
    return ReadText(key, &text) == REGDB_ERROR_NONE ? std::optional(text) : std::nullopt;
}

int CRegdbStore::Write(const std::string& key, int value) const {
    const auto parts = Split(key);
    if (!parts) {
        return REGDB_ERROR_INVALID_PARAMETER;
    }
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(m_strPath).parent_path(), error);
    GlibPtr<GKeyFile> file;
    const int result = Load(&file);
    if (result != REGDB_ERROR_NONE && result != REGDB_ERROR_NO_FILE) {
        return result;
    }
    g_key_file_set_integer(file.get(), parts->first.c_str(), parts->second.c_str(), value);
    // GLib writes a new file and renames it over the old one.
    return g_key_file_save_to_file(file.get(), m_strPath.c_str(), nullptr) != FALSE
               ? REGDB_ERROR_NONE
               : REGDB_ERROR_SYSTEM;
}

int CRegdbStore::List(std::vector<std::pair<std::string, std::string>>* pKeys) const {
    GlibPtr<GKeyFile> file;
    if (const int result = Load(&file); result != REGDB_ERROR_NONE) {
        return result;
    }
    const GlibPtr<gchar*> groups(g_key_file_get_groups(file.get(), nullptr));
    for (gchar** pGroup = groups.get(); *pGroup != nullptr; ++pGroup) {
        const GlibPtr<gchar*> names(g_key_file_get_keys(file.get(), *pGroup, nullptr, nullptr));
        for (gchar** pName = names.get(); pName != nullptr && *pName != nullptr; ++pName) {
            const GlibPtr<gchar> text(g_key_file_get_value(file.get(), *pGroup, *pName, nullptr));
            pKeys->emplace_back(std::string(*pGroup) + "/" + *pName, text.get());
        }
    }
    return REGDB_ERROR_NONE;
}
