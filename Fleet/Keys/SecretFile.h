// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_SECRETFILE_H
#define TALLYRA_SECRETFILE_H

#include <filesystem>
#include <string>

/// Replaces a file in one step. After a crash the file is either the old one or the new one.
/// @param mode  of the new file, as 0600
/// @throws std::system_error  if that fails
void ReplaceFile(const std::filesystem::path& path, const std::string& text, unsigned mode);

/// @return the content of a file
/// @throws std::runtime_error  if it cannot be read
std::string ReadWholeFile(const std::filesystem::path& path);

#endif  // TALLYRA_SECRETFILE_H
