// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Rows.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kRowsAligned = 100;
constexpr std::size_t kWidestCell = 60;

std::string TextOf(const Cell& cell) {
    if (const auto* pNumber = std::get_if<std::int64_t>(&cell)) {
        return std::to_string(*pNumber);
    }
    const auto* pText = std::get_if<std::string>(&cell);
    return pText != nullptr ? *pText : "";
}

Json JsonOf(const std::vector<std::string>& columns, const Row& row) {
    Json object = Json::object();
    for (std::size_t i = 0; i < columns.size(); ++i) {
        if (const auto* pNumber = std::get_if<std::int64_t>(&row.at(i))) {
            object[columns[i]] = *pNumber;
        } else if (const auto* pText = std::get_if<std::string>(&row.at(i))) {
            object[columns[i]] = *pText;
        } else {
            object[columns[i]] = nullptr;
        }
    }
    return object;
}

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Characters, not bytes: what follows a first byte of UTF-8 takes no room.
std::size_t WidthOf(const std::string& text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
    }));
}

// A text that came from a player must not move the cursor of who reads it, nor fill the screen.
std::string Printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    if (WidthOf(text) <= kWidestCell) {
        return text;
    }
    std::size_t end = 0;
    for (std::size_t width = 0; width < kWidestCell; ++end) {
        width += (static_cast<unsigned char>(text[end]) & 0xc0) != 0x80 ? 1 : 0;
    }
    return text.substr(0, end - 1) + "…";
}

class CTableWriter : public IRowWriter {
  public:
    CTableWriter(std::ostream& out, std::vector<std::string> columns, bool colours)
        : m_Out(out), m_Columns(std::move(columns)), m_bColours(colours) {}

    void Add(const Row& row) override {
        std::vector<std::string> texts;
        for (const Cell& cell : row) {
            texts.push_back(Printable(TextOf(cell)));
        }
        m_Numbers.resize(row.size());
        for (std::size_t i = 0; i < row.size(); ++i) {
            m_Numbers[i] = m_Numbers[i] || std::holds_alternative<std::int64_t>(row[i]);
        }
        m_Held.push_back(std::move(texts));
        if (m_bAligned || m_Held.size() >= kRowsAligned) {
            Flush();
        }
    }

    void Flush() override {
        if (!m_bAligned && !m_Held.empty()) {
            Align();
        }
        for (const auto& texts : m_Held) {
            Print(texts, false);
        }
        m_Held.clear();
        m_Out.flush();
    }

    void End() override { Flush(); }

  private:
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
        m_Out << (header && m_bColours ? "\033[1m" + line + "\033[0m" : line) << '\n';
    }

    std::ostream& m_Out;
    std::vector<std::string> m_Columns;
    bool m_bColours;
    bool m_bAligned = false;
    std::vector<std::size_t> m_Widths;
    std::vector<bool> m_Numbers;
    std::vector<std::vector<std::string>> m_Held;
};

class CJsonWriter : public IRowWriter {
  public:
    CJsonWriter(std::ostream& out, std::vector<std::string> columns)
        : m_Out(out), m_Columns(std::move(columns)) {}

    void Add(const Row& row) override {
        m_Out << (m_bFirst ? "[\n" : ",\n") << Dump(JsonOf(m_Columns, row));
        m_bFirst = false;
    }
    void Flush() override { m_Out.flush(); }
    void End() override { m_Out << (m_bFirst ? "[]\n" : "\n]\n"); }

  private:
    std::ostream& m_Out;
    std::vector<std::string> m_Columns;
    bool m_bFirst = true;
};

class CJsonLinesWriter : public IRowWriter {
  public:
    CJsonLinesWriter(std::ostream& out, std::vector<std::string> columns)
        : m_Out(out), m_Columns(std::move(columns)) {}

    void Add(const Row& row) override {
        m_Out << Dump(JsonOf(m_Columns, row)) << '\n';
        ++m_nRows;
    }
    void Flush() override { m_Out.flush(); }
    void End() override { m_Out << Dump(Json{{"end", true}, {"rows", m_nRows}}) << '\n'; }

  private:
    std::ostream& m_Out;
    std::vector<std::string> m_Columns;
    std::size_t m_nRows = 0;
};

class CCsvWriter : public IRowWriter {
  public:
    CCsvWriter(std::ostream& out, const std::vector<std::string>& columns) : m_Out(out) {
        Print(Row(columns.begin(), columns.end()));
    }

    void Add(const Row& row) override { Print(row); }
    void Flush() override { m_Out.flush(); }
    void End() override {}

  private:
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

    void Print(const Row& row) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            m_Out << (i > 0 ? "," : "") << Quoted(TextOf(row[i]));
        }
        m_Out << "\r\n";
    }

    std::ostream& m_Out;
};

}  // namespace

std::unique_ptr<IRowWriter> MakeRowWriter(Format format, std::ostream& out,
                                          std::vector<std::string> columns, bool colours) {
    switch (format) {
        case Format::JSON:
            return std::make_unique<CJsonWriter>(out, std::move(columns));
        case Format::JSONL:
            return std::make_unique<CJsonLinesWriter>(out, std::move(columns));
        case Format::CSV:
            return std::make_unique<CCsvWriter>(out, columns);
        default:
            return std::make_unique<CTableWriter>(out, std::move(columns), colours);
    }
}
