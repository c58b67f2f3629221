// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Rows.h"

#include "CellText.h"
#include "JsonText.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kRowsAligned = 100;
constexpr std::size_t kWidestCell = 60;

// JSON requires escapes only for some control characters. If a text contains others, such as C1
// controls or a direction override, everything that is not ASCII is escaped.
std::string Dump(const Json& json) {
    constexpr auto kReplace = Json::error_handler_t::replace;
    const std::string text = json.dump(-1, ' ', false, kReplace);
    return IsHarmless(text) ? text : json.dump(-1, ' ', true, kReplace);
}

/// Turns each kind of cell into JSON.
struct CellJson {
    Zone zone;

    std::string operator()(std::monostate /*empty*/) const { return "null"; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(const std::string& text) const { return Dump(text); }
    std::string operator()(TimeCell time) const { return Dump(FormatTime(time.nanoseconds, zone)); }
    std::string operator()(LengthCell length) const { return std::to_string(length.milliseconds); }
    std::string operator()(BytesCell size) const { return std::to_string(size.bytes); }
    std::string operator()(FlagCell flag) const { return flag.isSo ? "true" : "false"; }
    std::string operator()(const ListCell& list) const { return Json(list.numbers).dump(); }
};

/// Makes JSON objects of rows. It joins the texts of their members: the library's own objects would
/// search all members before they add one.
class CJsonObjects {
  public:
    CJsonObjects(const std::vector<std::string>& columns, Zone zone) : m_Cell{zone} {
        for (const std::string& column : columns) {
            m_Begins.push_back((m_Begins.empty() ? "{" : ",") + Dump(column) + ":");
        }
    }

    std::string Of(const Row& row) const {
        std::string object;
        for (std::size_t i = 0; i < m_Begins.size(); ++i) {
            object += m_Begins[i];
            object += std::visit(m_Cell, row.at(i));
        }
        return object + '}';
    }

  private:
    const CellJson m_Cell;
    std::vector<std::string> m_Begins;  ///< of each member: what precedes its value
};

// Texts of any length. Identifiers and names of events are not among them: half of one is useless.
bool MayBeCut(std::string_view column) {
    constexpr std::array<std::string_view, 4> kColumns = {"title", "url", "application", "group"};
    return std::ranges::find(kColumns, column) != kColumns.end();
}

class CTableWriter : public IRowWriter {
  public:
    CTableWriter(std::ostream& out, std::vector<std::string> columns, const RowStyle& style)
        : m_Out(out), m_Columns(std::move(columns)), m_Style(style) {
        std::ranges::transform(m_Columns, m_Columns.begin(), NameInTables);
    }

    void Flush() override {
        PrintHeld();
        m_Out.flush();
    }

  private:
    void Write(const Row& row) override {
        std::vector<std::string> texts;
        for (const Cell& cell : row) {
            texts.push_back(TextOf(cell));
        }
        m_Numbers.resize(row.size());
        m_Texts.resize(row.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            m_Numbers[i] = m_Numbers[i] || std::holds_alternative<std::int64_t>(row[i]);
            m_Texts[i] = m_Texts[i] || std::holds_alternative<std::string>(row[i]);
        }
        m_Held.push_back(std::move(texts));
        if (m_bAligned || m_Held.size() >= kRowsAligned) {
            PrintHeld();
        }
    }

    void Complete(const std::string& /*cursor*/) override { Flush(); }

    // Truncates texts of players, so that no row fills the screen.
    std::string TextOf(const Cell& cell) const {
        const std::string text = Printable(CellText(cell, m_Style));
        return m_Style.wholeTexts ? text : Shortened(text, kWidestCell);
    }

    void PrintHeld() {
        if (!m_bAligned && !m_Held.empty()) {
            Align();
        }
        for (const auto& texts : m_Held) {
            Print(texts, false);
        }
        m_Held.clear();
    }

    void Align() {
        for (std::size_t i = 0; i < m_Columns.size(); ++i) {
            std::size_t width = WidthOf(m_Columns[i]);
            for (const auto& texts : m_Held) {
                width = std::max(width, WidthOf(texts[i]));
            }
            m_Widths.push_back(width);
        }
        Fit();
        m_bAligned = true;
        Print(m_Columns, true);
    }

    // Narrows the widest of the columns that may be cut, again and again.
    void Fit() {
        constexpr std::size_t kNarrowest = 8;
        m_Cut.resize(m_Columns.size());
        if (m_Style.width == 0 || m_Style.wholeTexts) {
            return;
        }
        std::size_t total = std::reduce(m_Widths.begin(), m_Widths.end()) + 2 * m_Widths.size() - 2;
        for (; total > m_Style.width; --total) {
            std::size_t widest = m_Columns.size();
            for (std::size_t i = 0; i < m_Columns.size(); ++i) {
                const bool isWider = widest == m_Columns.size() || m_Widths[i] > m_Widths[widest];
                widest = MayBeCut(m_Columns[i]) && isWider ? i : widest;
            }
            if (widest == m_Columns.size() || m_Widths[widest] <= kNarrowest) {
                return;
            }
            --m_Widths[widest];
            m_Cut[widest] = true;
        }
    }

    // Cuts the texts of the columns that were narrowed.
    std::vector<std::string> Fitted(std::vector<std::string> texts) const {
        for (std::size_t i = 0; i < texts.size(); ++i) {
            texts[i] = m_Cut[i] ? Shortened(texts[i], m_Widths[i]) : texts[i];
        }
        return texts;
    }

    void Print(const std::vector<std::string>& whole, bool header) {
        const std::vector<std::string> texts = Fitted(whole);
        std::string line;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            const std::size_t width = WidthOf(texts[i]);
            const std::string fill(m_Widths[i] > width ? m_Widths[i] - width : 0, ' ');
            line += i > 0 ? "  " : "";
            line += m_Numbers[i] && !m_Texts[i] ? fill + texts[i] : texts[i] + fill;
        }
        line.resize(line.find_last_not_of(' ') + 1);
        m_Out << (header && m_Style.sink == Sink::COLOURS ? "\033[1m" + line + "\033[0m" : line)
              << '\n';
    }

    std::ostream& m_Out;
    std::vector<std::string> m_Columns;
    const RowStyle m_Style;
    bool m_bAligned = false;
    std::vector<std::size_t> m_Widths;
    std::vector<bool> m_Cut;      ///< whether a column was narrowed to fit
    std::vector<bool> m_Numbers;  ///< whether a column has numbers, which are aligned on the right
    std::vector<bool> m_Texts;    ///< whether a column has texts, beside which numbers are not
    std::vector<std::vector<std::string>> m_Held;
};

// Ends each row with a line end, and puts the comma before the next one: the comma cannot be known
// when the row is printed, and a reader of a pipe reads whole lines.
class CJsonWriter : public IRowWriter {
  public:
    CJsonWriter(std::ostream& out, const std::vector<std::string>& columns, Zone zone)
        : m_Out(out), m_Objects(columns, zone) {}

    void Flush() override { m_Out.flush(); }

  private:
    void Write(const Row& row) override {
        m_Out << (Rows() == 0 ? "[\n" : ",") << m_Objects.Of(row) << '\n';
    }
    void Complete(const std::string& /*cursor*/) override {
        m_Out << (Rows() == 0 ? "[]\n" : "]\n");
    }

    std::ostream& m_Out;
    const CJsonObjects m_Objects;
};

class CJsonLinesWriter : public IRowWriter {
  public:
    CJsonLinesWriter(std::ostream& out, const std::vector<std::string>& columns, Zone zone)
        : m_Out(out), m_Objects(columns, zone) {}

    void Flush() override { m_Out.flush(); }

  private:
    void Write(const Row& row) override { m_Out << m_Objects.Of(row) << '\n'; }
    void Complete(const std::string& cursor) override {
        Json end{{"end", true}, {"rows", Rows()}};
        if (!cursor.empty()) {
            end["cursor"] = cursor;
        }
        m_Out << Dump(end) << '\n';
    }

    std::ostream& m_Out;
    const CJsonObjects m_Objects;
};

class CCsvWriter : public IRowWriter {
  public:
    CCsvWriter(std::ostream& out, const std::vector<std::string>& columns, const RowStyle& style)
        : m_Out(out), m_Style(style) {
        Print(Row(columns.begin(), columns.end()));
    }

    void Flush() override { m_Out.flush(); }

  private:
    void Write(const Row& row) override { Print(row); }
    void Complete(const std::string& /*cursor*/) override {}

    static std::string Quoted(const std::string& text) {
        if (text.find_first_of(",\"\r\n") == std::string::npos) {
            return text;
        }
        std::string quoted = "\"";
        for (const char c : text) {
            quoted += c == '"' ? "\"\"" : std::string(1, c);
        }
        return quoted + '"';
    }

    // Spreadsheets run a text that begins like this as a formula, also when it is quoted. The last
    // ones are the full-width forms of the first.
    static bool LooksLikeFormula(std::string_view text) {
        text.remove_prefix(std::min(text.find_first_not_of("\" "), text.size()));
        const auto begins = [text](std::string_view begin) { return text.starts_with(begin); };
        constexpr std::string_view kBegins[] = {"=",  "+",  "-",  "@",  "\t", "\r",
                                                "\n", "＝", "＋", "－", "＠"};
        return std::ranges::any_of(kBegins, begins);
    }

    // Where ; or tab separates cells, a text has several.
    static std::string WithoutFormulas(const std::string& text) {
        std::string safe;
        for (std::size_t begin = 0; begin <= text.size();) {
            const std::size_t end = std::min(text.find_first_of(";\t", begin), text.size());
            const std::string_view rest = std::string_view(text).substr(begin);
            safe += LooksLikeFormula(rest) ? "'" : "";
            safe += rest.substr(0, end - begin + 1);
            begin = end + 1;
        }
        return safe;
    }

    std::string TextOf(const Cell& cell) const {
        std::string text = CellText(cell, m_Style);
        if (m_Style.sink != Sink::PROGRAM) {
            text = Printable(text);
        }
        const bool isSafe = !m_Style.safeCsv || !std::holds_alternative<std::string>(cell);
        return isSafe ? text : WithoutFormulas(text);
    }

    void Print(const Row& row) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            m_Out << (i > 0 ? "," : "") << Quoted(TextOf(row[i]));
        }
        m_Out << "\r\n";
    }

    std::ostream& m_Out;
    const RowStyle m_Style;
};

}  // namespace

std::string JsonText(const Json& json) {
    return Dump(json);
}

std::string NameInTables(const std::string& column) {
    constexpr std::string_view kUnit = "_ms";
    return column.ends_with(kUnit) ? column.substr(0, column.size() - kUnit.size()) : column;
}

void SortRows(std::vector<Row>& rows, const std::vector<std::string>& columns,
              const std::string& column, bool reverse) {
    const auto at = static_cast<std::size_t>(std::find(columns.begin(), columns.end(), column) -
                                             columns.begin());
    std::stable_sort(rows.begin(), rows.end(), [at, reverse](const Row& a, const Row& b) {
        const Cell& first = a.at(at);
        const Cell& second = b.at(at);
        if (first.index() == 0 || second.index() == 0) {
            return first.index() > second.index();
        }
        return reverse ? second < first : first < second;
    });
}

std::unique_ptr<IRowWriter> MakeRowWriter(std::ostream& out, std::vector<std::string> columns,
                                          const RowStyle& style) {
    switch (style.format) {
        case Format::JSON:
            return std::make_unique<CJsonWriter>(out, columns, style.zone);
        case Format::JSONL:
            return std::make_unique<CJsonLinesWriter>(out, columns, style.zone);
        case Format::CSV:
            return std::make_unique<CCsvWriter>(out, columns, style);
        case Format::TABLE:
            break;
    }
    return std::make_unique<CTableWriter>(out, std::move(columns), style);
}
