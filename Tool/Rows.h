// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_ROWS_H
#define TALLYRA_TOOL_ROWS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// A cell: empty, a number or a text.
using Cell = std::variant<std::monostate, std::int64_t, std::string>;
using Row = std::vector<Cell>;

/// Output formats.
enum class Format {
    TABLE,  ///< for people; column widths come from the first hundred rows
    JSON,   ///< one array of objects
    JSONL,  ///< one object per line, then a line {"end":true,"rows":N}
    CSV,    ///< RFC 4180 with a header line
};

/// What the output is connected to. Control characters in texts never reach a terminal.
enum class Sink {
    PROGRAM,   ///< a file or a pipe: texts are not changed
    TERMINAL,  ///< a terminal without colours
    COLOURS,   ///< a terminal with colours
};

/// @return the text as valid UTF-8, with "?" for each control or invisible format character
std::string Printable(std::string_view text);

/// Prints rows in one format. The output is incomplete until End is called.
class IRowWriter {
  public:
    virtual ~IRowWriter() = default;
    virtual void Add(const Row& row) = 0;
    /// Prints buffered rows, for use while no further rows are available.
    virtual void Flush() = 0;
    /// Completes the output.
    virtual void End() = 0;
};

std::unique_ptr<IRowWriter> MakeRowWriter(Format format, std::ostream& out,
                                          std::vector<std::string> columns, Sink sink);

#endif  // TALLYRA_TOOL_ROWS_H
