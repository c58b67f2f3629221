// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_PLATFORM_REGDBSTORE_H
#define TALLYRA_PLATFORM_REGDBSTORE_H

#include "GlibPtr.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The file behind the settings store. Every call reads it afresh.
///
/// Threads: any; no state but the path.
class CRegdbStore {
  public:
    /// The store of this process: where $REGDB_FILE says, else the user's.
    CRegdbStore();

    const std::string& Path() const { return m_strPath; }

    /// Reads a key as an integer.
    /// @return a code of regdb_error; the value is written with 0 only
    int Read(const std::string& key, int* pValue) const;

    /// Reads a key as it stands in the file.
    /// @return a code of regdb_error; the text is written with 0 only
    int ReadText(const std::string& key, std::string* pText) const;

    /// @return the text of a key, or nothing when it cannot be had
    std::optional<std::string> Text(const std::string& key) const;

    /// Replaces the file by one with the key set.
    /// @return a code of regdb_error
    int Write(const std::string& key, int value) const;

    /// Lists all keys with their texts, in the file's order.
    /// @return a code of regdb_error
    int List(std::vector<std::pair<std::string, std::string>>* pKeys) const;

    /// @return the group and the name of a key, or nothing when it is not one
    static std::optional<std::pair<std::string, std::string>> Split(const std::string& key);

  private:
    int Load(GlibPtr<GKeyFile>* pFile) const;

    std::string m_strPath;
};

#endif  // TALLYRA_PLATFORM_REGDBSTORE_H
