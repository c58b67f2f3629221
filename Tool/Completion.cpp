// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Completion.h"

#include "EventNames.h"
#include "UsageErrors.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <map>
#include <string_view>

// The shells' scripts pass the words that were typed, and offer the lines that come back. So the
// parser's own commands, options and values are completed, and no script lists them again.
//
// Identifiers come from players. A shell inserts what it offers into a command line as it is, so an
// identifier with a character that means something to a shell is never offered, nor what the
// scripts would take for kFiles.

namespace {

constexpr const char* kFiles = ":files";
constexpr const char* kApplications =
    "SELECT DISTINCT service_id FROM playbacks ORDER BY 1 LIMIT 1000";
constexpr const char* kPlaybacks =
    "SELECT playback_id, service_id FROM playbacks WHERE playback_id <> '' "
    "ORDER BY last_entry DESC LIMIT 100";

struct Offer {
    std::string text;
    std::string description{};
};
using Offers = std::vector<Offer>;

bool IsPlain(std::string_view text) {
    constexpr std::string_view kPlain = "._-/+@%,:";
    const auto isPlain = [&](unsigned char c) {
        return (c < 0x80 && std::isalnum(c) != 0) ||
               kPlain.find(static_cast<char>(c)) != std::string_view::npos;
    };
    return !text.empty() && text[0] != '-' && text[0] != ':' && std::ranges::all_of(text, isPlain);
}

Offers Identifiers(const Context& context, const char* pSql) {
    Offers offers;
    try {
        CTYDatabase database = OpenForReading(context);
        CTYStatement each(database, pSql);
        each.Begin();
        while (each.Step()) {
            const bool isDescribed = each.Columns() > 1 && IsPlain(each.Text(1));
            if (IsPlain(each.Text(0))) {
                offers.push_back({std::string(each.Text(0)),
                                  isDescribed ? std::string(each.Text(1)) : std::string()});
            }
        }
    } catch (const std::exception&) {
        // There is nobody to tell: the shell shows the line that is being typed.
    }
    return offers;
}

Offers Plain(const std::vector<std::string>& texts) {
    Offers offers;
    for (const std::string& text : texts) {
        offers.push_back({text});
    }
    return offers;
}

Offers Of(const Context& context, const std::string& kind) {
    if (kind == "applications" || kind == "application") {
        return Identifiers(context, kApplications);
    }
    if (kind == "playbacks" || kind == "playback") {
        return Identifiers(context, kPlaybacks);
    }
    if (kind == "events" || kind == "code") {
        return Plain(EventNames());
    }
    if (kind == "db" || kind == "codes" || kind == "output" || kind == "file") {
        return Plain({kFiles});
    }
    if (kind == "end") {
        return Plain(PlaybackEnds());
    }
    return kind == "network" ? Plain({"none", "ethernet", "wifi", "unknown"}) : Offers();
}

std::string NameOf(const CLI::Option& option) {
    return option.get_lnames().empty() ? std::string() : option.get_lnames().front();
}

CLI::App* CommandNamed(CLI::App& app, const std::string& name) {
    const auto found =
        app.get_subcommands([&](const CLI::App* pCommand) { return pCommand->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

/// Follows the words that were typed, as the parser would.
class CTyped {
  public:
    CTyped(CLI::App& app, Context& context) : m_pApp(&app), m_Context(context) {}

    void Take(const std::string& word) {
        if (word == "=") {
            return;
        }
        if (m_pOption != nullptr) {
            TakeValue(word);
        } else if (word.starts_with("-")) {
            TakeOption(word);
        } else if (CLI::App* pCommand = CommandNamed(*m_pApp, word); pCommand != nullptr) {
            m_pApp = pCommand;
        } else {
            ++m_nPositionals;
        }
    }

    /// @param word  the beginning of what is being typed
    Offers Offered(const std::string& word) {
        if (m_pOption != nullptr) {
            return ValuesFor(*m_pOption);
        }
        if (const auto equals = word.find('='); word.starts_with("--") && equals < word.size()) {
            return ValuesBehind(word.substr(0, equals));
        }
        return word.starts_with("-") ? Options() : CommandsAndPositionals();
    }

  private:
    void TakeOption(const std::string& word) {
        const auto equals = word.find('=');
        m_pOption = m_pApp->get_option_no_throw(word.substr(0, equals));
        if (m_pOption != nullptr && m_pOption->get_items_expected_max() == 0) {
            m_pOption = nullptr;
        }
        if (m_pOption != nullptr && equals != std::string::npos) {
            TakeValue(word.substr(equals + 1));
        }
    }

    void TakeValue(const std::string& word) {
        const std::string name = NameOf(*m_pOption);
        m_pOption = nullptr;
        if (name == "db") {
            m_Context.db = word;
        } else if (name == "codes") {
            UseSiteCodes(word, m_Context.errors);
        }
    }

    Offers ValuesFor(CLI::Option& option) const {
        const std::string name = NameOf(option);
        if (name == "sort") {
            return Plain(m_pApp->get_name() == "records" ? RecordSortColumns()
                                                         : PlaybackSortColumns());
        }
        const std::vector<std::string> values = ValuesOf(option);
        return values.empty() ? Of(m_Context, name) : Plain(values);
    }

    Offers ValuesBehind(const std::string& name) const {
        CLI::Option* pOption = m_pApp->get_option_no_throw(name);
        Offers offers = pOption != nullptr ? ValuesFor(*pOption) : Offers();
        for (Offer& offer : offers) {
            offer.text = offer.text == kFiles ? kFiles : name + "=" + offer.text;
        }
        return offers;
    }

    Offers Options() const {
        Offers offers;
        for (const CLI::Option* pOption : m_pApp->get_options()) {
            for (const std::string& name : pOption->get_lnames()) {
                offers.push_back({"--" + name, pOption->get_description()});
            }
        }
        return offers;
    }

    Offers CommandsAndPositionals() const {
        Offers offers;
        for (const CLI::App* pCommand :
             m_pApp->get_subcommands([](const CLI::App*) { return true; })) {
            offers.push_back({pCommand->get_name(), pCommand->get_description()});
        }
        int position = 0;
        for (const CLI::Option* pOption : m_pApp->get_options()) {
            if (pOption->get_positional() && position++ == m_nPositionals) {
                const Offers more = Of(m_Context, pOption->get_name(true));
                offers.insert(offers.end(), more.begin(), more.end());
            }
        }
        return offers;
    }

    CLI::App* m_pApp;
    CLI::Option* m_pOption = nullptr;  ///< the option whose value comes next
    int m_nPositionals = 0;            ///< words that were neither commands, options nor values
    Context& m_Context;
};

void Print(std::ostream& out, const Offers& offers, const std::string& begin) {
    for (const Offer& offer : offers) {
        if (offer.text == kFiles || offer.text.starts_with(begin)) {
            out << offer.text << (offer.description.empty() ? "" : "\t" + offer.description)
                << "\n";
        }
    }
}

}  // namespace

bool IsCompletion(const std::vector<std::string>& arguments) {
    static const std::vector<std::string> kKinds = {"words", "applications", "playbacks", "events"};
    return arguments.size() > 1 && arguments[0] == "complete" &&
           std::ranges::find(kKinds, arguments[1]) != kKinds.end();
}

void Complete(CCommandLine& line, const std::vector<std::string>& arguments) {
    Context& context = line.Values();
    CTyped typed(line.App(), context);
    const bool isWords = arguments[1] == "words";
    if (!isWords) {
        typed.Take("records");  // for --db and --codes
    }
    for (std::size_t i = 2; i < arguments.size() - (isWords ? 1 : 0); ++i) {
        typed.Take(arguments[i]);
    }
    if (!isWords) {
        Print(context.out, Of(context, arguments[1]), "");
        return;
    }
    // Bash splits "--format=csv" into three words.
    const std::string last = arguments.size() > 2 ? arguments.back() : "";
    const std::string word = last == "=" ? "" : last;
    Print(context.out, typed.Offered(word), word);
}
