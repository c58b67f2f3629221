// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_RECORDLINES_H
#define TALLYRA_TESTKIT_RECORDLINES_H

#include "Rows.h"
#include "receiver/Wire.h"

#include <cstdint>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>

/// Writes what arrives as JSON lines, with the fields of `tallyra export`.
///
/// Threads: one at a time.
class CRecordLines {
  public:
    /// @param file  "-" is standard output
    /// @throws std::runtime_error  if the file cannot be opened
    explicit CRecordLines(const std::string& file);

    /// Writes the records of a call, or reports on standard error what is wrong with it.
    void Add(const receiver::Call& call);
    /// Writes the last line.
    /// @throws std::runtime_error  if a line could not be written
    void End();

  private:
    const std::string m_strName;
    std::ofstream m_File;
    std::ostream& m_Out;
    std::unique_ptr<IRowWriter> m_pWriter;
    std::int64_t m_nId = 0;
};

#endif  // TALLYRA_TESTKIT_RECORDLINES_H
