// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_SITECODES_H
#define TALLYRA_TOOL_SITECODES_H

#include <map>
#include <optional>
#include <ostream>
#include <string>

/// Names that a site gives to the codes of its players, in a file with the groups [events] and
/// [errors] and lines such as 210=DRM_LICENCE_REFUSED.
///
/// Threads: one.
class CSiteCodes {
  public:
    /// Reads a file. Each line that names no code is reported in one line, and ignored; after ten
    /// such lines, only their number is reported.
    /// @throws std::runtime_error  if the file cannot be read, is no file, or exceeds 1 MiB
    CSiteCodes(const std::string& path, std::ostream& errors);
    CSiteCodes() = default;

    /// @return the code's name in capitals; empty if the file has none
    std::optional<std::string> NameOf(int code) const;
    /// @return the code of a name in capitals; empty if the file does not have it
    std::optional<int> CodeOf(const std::string& name) const;
    const std::map<int, std::string>& All() const { return m_Names; }

  private:
    void AddLines(const std::string& path, const std::string& text, std::ostream& errors);
    std::string AddLine(const std::string& line);
    std::string AddName(const std::string& code, const std::string& name);

    std::map<int, std::string> m_Names;
    std::string m_strGroup;  ///< the group of the line that is being read
};

#endif  // TALLYRA_TOOL_SITECODES_H
