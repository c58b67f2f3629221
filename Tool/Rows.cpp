// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Rows.h"

#include "JsonText.h"
#include "TYRecordImage.h"

#include <glib.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kRowsAligned = 100;
constexpr std::size_t kWidestCell = 60;

/// Turns each kind of cell into the text of a table or of CSV.
struct CellText {
    const RowStyle& style;

    std::string operator()(std::monostate /*empty*/) const { return ""; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(const std::string& text) const { return text; }
    std::string operator()(TimeCell time) const { return FormatTime(time.nanoseconds, style.zone); }
    std::string operator()(LengthCell length) const {
        return style.format == Format::TABLE ? FormatLength(length.milliseconds)
                                             : std::to_string(length.milliseconds);
    }
};

// Zero-width joiners are part of words in some scripts. Other format characters can reorder a line.
bool IsHarmless(gunichar character) {
    switch (g_unichar_type(character)) {
        case G_UNICODE_CONTROL:
        case G_UNICODE_LINE_SEPARATOR:
        case G_UNICODE_PARAGRAPH_SEPARATOR:
            return false;
        case G_UNICODE_FORMAT:
            return character == 0x200c || character == 0x200d;
        default:
            return true;
    }
}

bool IsHarmless(const std::string& text) {
    for (const char* pAt = text.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        if (!IsHarmless(g_utf8_get_char(pAt))) {
            return false;
        }
    }
    return true;
}

// JSON writers do not escape DEL, which is a control character as well.
std::string EscapeDelete(std::string text) {
    for (std::size_t at = text.find('\x7f'); at != std::string::npos; at = text.find('\x7f', at)) {
        text.replace(at, 1, "\\u007f");
    }
    return text;
}

// JSON requires escapes only for some control characters. If a text contains others, such as C1
// controls or a direction override, everything that is not ASCII is escaped.
std::string Dump(const Json& json) {
    constexpr auto kReplace = Json::error_handler_t::replace;
    const std::string text = json.dump(-1, ' ', false, kReplace);
    return IsHarmless(text) ? text : EscapeDelete(json.dump(-1, ' ', true, kReplace));
}

/// Turns each kind of cell into JSON.
struct CellJson {
    Zone zone;

    std::string operator()(std::monostate /*empty*/) const { return "null"; }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
    std::string operator()(const std::string& text) const { return Dump(text); }
    std::string operator()(TimeCell time) const { return Dump(FormatTime(time.nanoseconds, zone)); }
    std::string operator()(LengthCell length) const { return std::to_string(length.milliseconds); }
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

std::size_t WidthOf(gunichar character) {
    if (g_unichar_iszerowidth(character) != FALSE) {
        return 0;
    }
    return g_unichar_iswide(character) != FALSE ? 2 : 1;
}

std::size_t WidthOf(const std::string& text) {
    std::size_t width = 0;
    for (const char* pAt = text.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        width += WidthOf(g_utf8_get_char(pAt));
    }
    return width;
}

class CTableWriter : public IRowWriter {
  public:
    CTableWriter(std::ostream& out, std::vector<std::string> columns, const RowStyle& style)
        : m_Out(out), m_Columns(std::move(columns)), m_Style(style) {}

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
        for (std::size_t i = 0; i < row.size(); ++i) {
            m_Numbers[i] = m_Numbers[i] || std::holds_alternative<std::int64_t>(row[i]);
        }
        m_Held.push_back(std::move(texts));
        if (m_bAligned || m_Held.size() >= kRowsAligned) {
            PrintHeld();
        }
    }

    void Complete(const std::string& /*cursor*/) override { Flush(); }

    // Truncates texts of players, so that no row fills the screen.
    std::string TextOf(const Cell& cell) const {
        const std::string text = Printable(std::visit(CellText{m_Style}, cell));
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
        m_bAligned = true;
        Print(m_Columns, true);
    }

    void Print(const std::vector<std::string>& texts, bool header) {
        std::string line;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            const std::size_t width = WidthOf(texts[i]);
            const std::string fill(m_Widths[i] > width ? m_Widths[i] - width : 0, ' ');
            line += i > 0 ? "  " : "";
            line += m_Numbers[i] ? fill + texts[i] : texts[i] + fill;
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
    std::vector<bool> m_Numbers;
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

    // Spreadsheets run a text that begins like this as a formula, also when it is quoted.
    static bool LooksLikeFormula(const Cell& cell) {
        const auto* pText = std::get_if<std::string>(&cell);
        return pText != nullptr && !pText->empty() &&
               std::string_view("=+-@\t\r\n").find(pText->front()) != std::string_view::npos;
    }

    std::string TextOf(const Cell& cell) const {
        std::string text = std::visit(CellText{m_Style}, cell);
        if (m_Style.sink != Sink::PROGRAM) {
            text = Printable(text);
        }
        return m_Style.safeCsv && LooksLikeFormula(cell) ? "'" + text : text;
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

std::string Printable(std::string_view text) {
    const std::string valid = ValidText(text);
    std::string printable;
    for (const char* pAt = valid.c_str(); *pAt != '\0'; pAt = g_utf8_next_char(pAt)) {
        const auto length = static_cast<std::size_t>(g_utf8_next_char(pAt) - pAt);
        printable += IsHarmless(g_utf8_get_char(pAt)) ? std::string(pAt, length) : "?";
    }
    return printable;
}

std::string Shortened(const std::string& text, std::size_t width) {
    if (WidthOf(text) <= width) {
        return text;
    }
    const char* pEnd = text.c_str();
    std::size_t taken = WidthOf(g_utf8_get_char(pEnd));
    while (taken < width) {
        pEnd = g_utf8_next_char(pEnd);
        taken += WidthOf(g_utf8_get_char(pEnd));
    }
    return text.substr(0, static_cast<std::size_t>(pEnd - text.c_str())) + "…";
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
