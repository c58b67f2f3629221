// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "UsageErrors.h"

#include "Rows.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <optional>
#include <regex>

// CLI11 throws errors that hold a text, and no parts of it. Its texts show types, maps and other
// things that only its callers know. So each kind of text is taken apart here and written again.
// A text that is not in the list is one of our own, and is printed as it is.

namespace {

// The regular expressions of libstdc++ recurse once a character: a text of 30 KB overflows the
// stack. What the user gave stands in the middle of the parser's texts.
std::string Abridged(const std::string& text) {
    constexpr std::size_t kBegin = 300;
    constexpr std::size_t kEnd = 700;
    return text.size() <= kBegin + kEnd
               ? text
               : text.substr(0, kBegin) + "…" + text.substr(text.size() - kEnd);
}

/// Text of the parser, and what it says to a user. "$1" stands for the first group.
struct Wording {
    std::regex parsers;
    const char* pOurs;
};

const std::vector<Wording>& Wordings() {
    static const std::vector<Wording> kWordings = {
        {std::regex("A subcommand is required"), "a command is missing"},
        {std::regex("(-[^ ]*) is required"), "the option $1 is missing"},
        {std::regex("(.*) is required"), "an argument is missing: $1"},
        {std::regex("(.*): \\d+ required \\S+ missing"), "$1 needs a value"},
        {std::regex("(.*): At least (\\d+) required but received (\\d+)"),
         "$1 needs $2 values, not $3"},
        {std::regex("(.*): At Most 1 required but received \\d+"), "$1 may be given only once"},
        {std::regex("(.*): At Most (\\d+) required but received (\\d+)"),
         "$1 takes at most $2 values, not $3"},
        {std::regex("(.*) was given a disallowed flag override"), "--$1 takes no value"},
        {std::regex("(.*): (?:too many inputs for a flag|Should be true/false or a number)"),
         "$1 takes no value"},
        {std::regex("Could not convert: (\\S+) = ([^]*)"), "$1: '$2' is not a number"},
        {std::regex("The value ([^]*) is not an allowed value for (.*)"), "$2 does not take '$1'"},
        {std::regex("(\\S+): Value ([^]*) not in range (.*) to (.*)"),
         "$1: '$2' is not a number from $3 to $4"},
        {std::regex("(.*) excludes (.*)"), "$1 cannot be used with $2"},
        {std::regex("(.*) requires (.*)"), "$1 can only be used with $2"}};
    return kWordings;
}

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

std::string Join(const std::vector<std::string>& parts) {
    const auto add = [](const std::string& all, const std::string& part) {
        return all + (all.empty() ? "" : ", ") + part;
    };
    return std::accumulate(parts.begin(), parts.end(), std::string(), add);
}

// A value outside a set: the parser lists its members.
std::optional<std::string> DescribeChoice(const std::string& text) {
    static const std::regex kSet("(\\S+): ([^]*) not in \\{([^}]*)\\}");
    std::smatch parts;
    if (!std::regex_match(text, parts, kSet)) {
        return std::nullopt;
    }
    const std::vector<std::string> values = Split(parts.str(3), ',');
    return parts.str(1) + ": '" + parts.str(2) + "' is none of " + Join(values) +
           Suggestion(parts.str(2), values);
}

std::string Reword(const std::string& text) {
    if (const auto choice = DescribeChoice(text)) {
        return *choice;
    }
    for (const Wording& wording : Wordings()) {
        if (std::smatch parts; std::regex_match(text, parts, wording.parsers)) {
            return parts.format(wording.pOurs);
        }
    }
    return text;
}

std::vector<std::string> CommandsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* pCommand : app.get_subcommands([](const CLI::App*) { return true; })) {
        if (!pCommand->get_group().empty()) {
            names.push_back(pCommand->get_name());
        }
    }
    return names;
}

std::vector<std::string> OptionsOf(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::Option* pOption : app.get_options()) {
        for (const std::string& name : pOption->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

bool HasCommandWith(const CLI::App& app, const std::string& option) {
    const auto has = [&](const CLI::App* pCommand) {
        return pCommand->get_option_no_throw(option) != nullptr;
    };
    return !app.get_subcommands(has).empty();
}

// What a user of other programs may try, and what a script of a shell may get wrong.
std::string HintFor(const CLI::App& app, const std::string& command) {
    const bool isOption = app.get_option_no_throw("--" + command) != nullptr;
    if (isOption) {
        return "; did you mean '--" + command + "'?";
    }
    return command == "complete" ? " without words, applications, playbacks or events behind it"
                                 : Suggestion(command, CommandsOf(app));
}

std::string DescribeUnknown(const CLI::App& app, const std::string& word) {
    const bool takesCommand = !CommandsOf(app).empty();
    if (word.size() > 1 && word[0] == '-') {
        const std::string name = word.substr(0, word.find('='));
        if (takesCommand && HasCommandWith(app, name)) {
            return "the option " + name + " belongs behind the command";
        }
        return "unknown option '" + name + "'" + Suggestion(name, OptionsOf(app));
    }
    if (takesCommand && app.get_subcommands().empty()) {
        return "unknown command '" + word + "'" + HintFor(app, word);
    }
    return "unexpected argument '" + word + "'";
}

// The program, then the commands that were found.
std::vector<const CLI::App*> FoundIn(const CLI::App& app) {
    std::vector<const CLI::App*> found = {&app};
    while (!found.back()->get_subcommands().empty()) {
        found.push_back(found.back()->get_subcommands().front());
    }
    return found;
}

std::string Describe(const CLI::App& app, const CLI::ParseError& error) {
    // What the parser could not place explains what it found missing.
    if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr ||
        dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr) {
        for (const CLI::App* pApp : FoundIn(app)) {
            if (const auto unknown = pApp->remaining(); !unknown.empty()) {
                return DescribeUnknown(*pApp, unknown.front());
            }
        }
    }
    return Reword(Abridged(error.what()));
}

// Levenshtein's distance.
std::size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

}  // namespace

void PrintUsageError(const CLI::App& app, const CLI::ParseError& error, std::ostream& errors) {
    std::string command;
    for (const CLI::App* pApp : FoundIn(app)) {
        command += pApp->get_name() + " ";
    }
    errors << "tallyra: " << Printable(Abridged(Describe(app, error))) << "\nSee '" << command
           << "--help'.\n";
}

void ForbidFlagValues(CLI::App& app) {
    for (CLI::Option* pOption : app.get_options([](const CLI::Option*) { return true; })) {
        if (pOption->get_items_expected_max() == 0) {
            pOption->disable_flag_override();
        }
    }
    for (CLI::App* pCommand : app.get_subcommands([](const CLI::App*) { return true; })) {
        ForbidFlagValues(*pCommand);
    }
}

std::vector<std::string> ValuesOf(CLI::Option& option) {
    static const std::regex kChoice("[^]* not in \\{([^}]*)\\}");
    std::string impossible = "\n";
    std::string text;
    try {
        text = (*option.get_validator(0))(impossible);
    } catch (const CLI::OptionNotFound&) {
        return {};
    }
    std::smatch parts;
    return std::regex_match(text, parts, kChoice) ? Split(parts.str(1), ',')
                                                  : std::vector<std::string>();
}

std::string Suggestion(const std::string& word, const std::vector<std::string>& candidates) {
    const std::string nearest = Nearest(word, candidates);
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

std::vector<std::string> SplitEmptyValues(const std::vector<std::string>& arguments) {
    std::vector<std::string> split;
    for (const std::string& argument : arguments) {
        const bool isEmpty =
            argument.starts_with("--") && argument.find('=') + 1 == argument.size();
        split.push_back(isEmpty ? argument.substr(0, argument.size() - 1) : argument);
        if (isEmpty) {
            split.emplace_back();
        }
    }
    return split;
}

std::string Nearest(const std::string& word, const std::vector<std::string>& candidates) {
    std::string nearest;
    std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
    for (const std::string& candidate : candidates) {
        const bool isBeginning = word.size() > 2 && candidate.starts_with(word);
        const std::size_t distance = isBeginning ? 1 : Distance(word, candidate);
        if (distance < least) {
            least = distance;
            nearest = candidate;
        }
    }
    return nearest;
}
