// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYKEYFOLDER_H
#define TALLYRA_TYKEYFOLDER_H

#include "TYNkey.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// The folder that holds the keys of a fleet: seeds, tokens, and the names of those that have
/// credentials.
///
/// Threads: one, in one process.
class CTYKeyFolder {
  public:
    /// @param path  of the folder
    explicit CTYKeyFolder(std::filesystem::path path) : m_Path(std::move(path)) {}

    /// Makes a new operator and its accounts, and the configurations of servers.
    /// @param servers  HOST or HOST:PORT of each nats-server
    /// @throws std::runtime_error  if the folder holds keys already, or cannot be written
    void Init(const std::vector<std::string>& servers, std::int64_t now) const;

    /// @return the credentials file of a new user, whose key is not kept
    /// @throws std::runtime_error  if the name is not allowed, or the folder is not usable
    std::string MakeDevice(const std::string& name, std::int64_t now) const;
    std::string MakeCollector(const std::string& name, std::int64_t now) const;

    /// Revokes all credentials that a name has had so far.
    /// @return how many
    /// @throws std::runtime_error  if the name has none
    int Revoke(const std::string& name, std::int64_t now) const;

  private:
    std::string MakeUser(const char* pRole, const std::string& name, std::int64_t now) const;
    CTYNkey Key(const std::string& name) const;
    void KeepKey(const std::string& name, const CTYNkey& key) const;
    void KeepToken(const std::string& name, const std::string& token) const;
    std::string Token(const std::string& name) const;
    void WriteResolver() const;

    std::filesystem::path m_Path;
};

#endif  // TALLYRA_TYKEYFOLDER_H
