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

/// One value of a row: nothing, a number or a text.
using Cell = std::variant<std::monostate, std::int64_t, std::string>;
using Row = std::vector<Cell>;

/// How rows are printed.
enum class Format {
    TABLE,  ///< for people, wherever it goes; columns are aligned over the first hundred rows
    JSON,   ///< one array of objects
    JSONL,  ///< an object a line, and a last line that says that it is the end
    CSV,    ///< RFC 4180, with a header
};

/// Where rows go. What a player sent reaches a terminal only as characters that it shows.
enum class Sink {
    PROGRAM,   ///< a file or another program: every text as it came
    TERMINAL,  ///< a person's screen
    COLOURS,   ///< one that may have colours
};

/// @return the text with "?" for each character that would move a cursor or change how others are
///         shown
std::string Printable(std::string_view text);

/// Prints rows as they come. End has to be called: what ends without it was cut off.
class IRowWriter {
  public:
    virtual ~IRowWriter() = default;
    virtual void Add(const Row& row) = 0;
    /// Prints what was held back, as when nothing more comes for a while.
    virtual void Flush() = 0;
    virtual void End() = 0;
};

std::unique_ptr<IRowWriter> MakeRowWriter(Format format, std::ostream& out,
                                          std::vector<std::string> columns, Sink sink);

#endif  // TALLYRA_TOOL_ROWS_H
