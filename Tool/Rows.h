// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TOOL_ROWS_H
#define TALLYRA_TOOL_ROWS_H

#include "PrintedText.h"
#include "TimeText.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

/// A time in nanoseconds since the epoch, printed as FormatTime does.
struct TimeCell {
    std::int64_t nanoseconds;
    bool operator<(const TimeCell& other) const { return nanoseconds < other.nanoseconds; }
};

/// A length in milliseconds, printed as FormatLength does in a table, and elsewhere as a number.
struct LengthCell {
    std::int64_t milliseconds;
    bool operator<(const LengthCell& other) const { return milliseconds < other.milliseconds; }
};

/// A number of bytes, printed with its unit in a table, and elsewhere as a number.
struct BytesCell {
    std::int64_t bytes;
    bool operator<(const BytesCell& other) const { return bytes < other.bytes; }
};

/// Whether something is so: yes or no in a table, elsewhere true or false.
struct FlagCell {
    bool isSo;
    bool operator<(const FlagCell& other) const { return !isSo && other.isSo; }
};

/// A list of numbers: an array in JSON, elsewhere with spaces in between.
struct ListCell {
    std::vector<std::int64_t> numbers;
    bool operator<(const ListCell& other) const { return numbers < other.numbers; }
};

/// A cell: empty, a number, a text, or one of the above.
using Cell = std::variant<std::monostate, std::int64_t, std::string, TimeCell, LengthCell,
                          BytesCell, FlagCell, ListCell>;
using Row = std::vector<Cell>;

/// Output formats.
enum class Format {
    TABLE,  ///< for people; column widths come from the first hundred rows
    JSON,   ///< one array of objects, each on a line of its own
    JSONL,  ///< one object per line, then a line {"end":true,"rows":N}
    CSV,    ///< RFC 4180 with a header line
};

/// What the output is connected to. Control characters in texts never reach a terminal.
enum class Sink {
    PROGRAM,   ///< a file or a pipe: texts are not changed
    TERMINAL,  ///< a terminal without colours
    COLOURS,   ///< a terminal with colours
};

/// How rows are printed.
struct RowStyle {
    Format format = Format::TABLE;
    Sink sink = Sink::PROGRAM;
    Zone zone = Zone::UTC;
    bool safeCsv = false;     ///< CSV: puts ' before texts that spreadsheets take for formulas
    bool wholeTexts = false;  ///< tables: cuts no text
    std::size_t width = 0;    ///< tables: cuts titles, URLs, applications and groups to fit into it
};

/// @return the name of a column in tables. Names end with "_ms" for lengths, which other formats
///         print as a number of milliseconds.
std::string NameInTables(const std::string& column);

/// Sorts rows by one of their columns. Rows without a value come last in both directions.
void SortRows(std::vector<Row>& rows, const std::vector<std::string>& columns,
              const std::string& column, bool reverse);

/// Prints rows in one format. The output is incomplete until End is called. Until Flush or End,
/// rows may be held back.
///
/// Threads: one.
class IRowWriter {
  public:
    virtual ~IRowWriter() = default;

    void Add(const Row& row) {
        Write(row);
        ++m_nRows;
    }
    /// Prints buffered rows, for use while no further rows are available.
    virtual void Flush() = 0;
    /// Completes the output.
    /// @param cursor  where a later export goes on, for the end of JSON lines; empty for none
    void End(const std::string& cursor = "") { Complete(cursor); }

    std::size_t Rows() const { return m_nRows; }

  private:
    virtual void Write(const Row& row) = 0;
    virtual void Complete(const std::string& cursor) = 0;

    std::size_t m_nRows = 0;
};

std::unique_ptr<IRowWriter> MakeRowWriter(std::ostream& out, std::vector<std::string> columns,
                                          const RowStyle& style);

#endif  // TALLYRA_TOOL_ROWS_H
