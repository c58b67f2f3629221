// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_REGDBSTORE_H
#define TALLYRA_PLATFORM_REGDBSTORE_H

#include "GlibPtr.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The file of the settings store. Every call reads it again.
///
/// Threads: any; no state but the path.
class CRegdbStore {
  public:
    /// Takes the path from $REGDB_FILE, else the default for root or for the user.
    CRegdbStore();

    const std::string& Path() const { return m_strPath; }

    /// Reads a key as an integer.
    /// @return a code of regdb_error; the value is written on success only
    int Read(const std::string& key, int* pValue) const;

    /// Reads the text of a key's value.
    /// @return a code of regdb_error; the text is written on success only
    int ReadText(const std::string& key, std::string* pText) const;

    /// @return the text of a key's value, or nothing when it cannot be read
    std::optional<std::string> Text(const std::string& key) const;

    /// Sets a key and replaces the file atomically.
    /// @return a code of regdb_error
    int Write(const std::string& key, int value) const;

    /// Lists all keys with the texts of their values, in the file's order.
    /// @return a code of regdb_error
    int List(std::vector<std::pair<std::string, std::string>>* pKeys) const;

    /// @return the group and the name of a key, or nothing for a malformed key
    static std::optional<std::pair<std::string, std::string>> Split(const std::string& key);

  private:
    int Load(GlibPtr<GKeyFile>* pFile) const;

    std::string m_strPath;
};

#endif  // TALLYRA_PLATFORM_REGDBSTORE_H
