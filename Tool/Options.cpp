// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include "EventNames.h"
#include "TYStorePath.h"
#include "TimeText.h"
#include "TypeNames.h"
#include "UsageErrors.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>
#include <string>
#include <system_error>

namespace {

constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

const std::map<std::string, Format> kFormats{{"table", Format::TABLE},
                                             {"json", Format::JSON},
                                             {"jsonl", Format::JSONL},
                                             {"csv", Format::CSV}};

// CLI11 evaluates options in the order of their definition, so these two are defined before the
// options that take times.
void AddZone(CLI::App& app, Context& context) {
    if (app.get_option_no_throw("--utc") != nullptr) {
        return;
    }
    CLI::Option& utc = *app.add_flag_callback(
        "--utc", [&context] { context.zone = Zone::UTC; },
        "Print times in UTC, and read times without an offset as UTC; the default");
    app.add_flag_callback(
           "--local", [&context] { context.zone = Zone::LOCAL; },
           "Print times in local time with its offset, and read times without an offset as local")
        ->excludes(&utc);
}

std::string Joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::string DescribeNoTime(const std::string& text, Zone zone) {
    if (HasFormOfDate(text)) {
        return "there is no such time: " + text +
               (zone == Zone::LOCAL ? "; the calendar, or a change to summer time, skips it" : "");
    }
    return "not a time: " + text +
           "; times are written as 2026-11-21T07:30, 2026-11-21, today, 2h (ago) or @SECONDS";
}

std::optional<std::int64_t> Decimal(const std::string& text) {
    std::int64_t number = 0;
    const char* pEnd = text.data() + text.size();
    const auto [pStopped, error] = std::from_chars(text.data(), pEnd, number);
    return error == std::errc() && pStopped == pEnd ? std::optional(number) : std::nullopt;
}

std::string DescribeRange(std::int64_t least, std::int64_t most) {
    if (most == kNoLimit) {
        return least < 0 ? " that is not negative, nor -1 for all" : " that is not negative";
    }
    return " from " + std::to_string(least) + " to " + std::to_string(most);
}

std::int64_t TimeIn(const std::string& text, const Context& context, const char* pName) {
    const auto time = ParseTime(text, context.now, context.zone);
    if (!time) {
        throw CLI::ValidationError(pName, DescribeNoTime(text, context.zone));
    }
    return *time;
}

std::string DescribeWrongCode(const std::string& word) {
    if (Decimal(word)) {
        return "not an event: " + word + "; codes are numbers from 0 to 255";
    }
    std::string name = word;
    std::ranges::transform(name, name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    return "not an event: " + word + Suggestion(name, EventNames());
}

void AddCodes(CLI::App& app, std::vector<int>& codes) {
    AddWords(
        app, "--code",
        [&codes](const std::vector<std::string>& words) {
            for (const std::string& word : words) {
                const auto code = EventCode(word);
                if (!code) {
                    throw CLI::ValidationError("--code", DescribeWrongCode(word));
                }
                codes.push_back(*code);
            }
        },
        "Select only these events: codes, or names such as BUFFERING_START");
}

void AddNetwork(CLI::App& app, std::optional<int>& network) {
    app.add_option_function<std::string>(
        "--network",
        [&network](const std::string& text) {
            network = NetworkType(text);
            if (!network) {
                throw CLI::ValidationError(
                    "--network",
                    "not a network: " + text + "; one of none, ethernet, wifi, unknown");
            }
        },
        "Select only this network: none, ethernet, wifi, unknown, or a number");
}

// A URL in the environment may hold a password, so help does not show it.
void AddDatabase(CLI::App& command, std::string& db) {
    CLI::Option& option = *command.add_option("--db", db, "Use this database of tallyra-service")
                               ->capture_default_str();
    if (IsServerUrl(db)) {
        option.default_str("TALLYRA_DB");
    }
    RefuseEmpty(option);
}

}  // namespace

CCommandLine::CCommandLine(Context& context)
    : m_Context(context),
      m_App(
          "Prints, exports and deletes the records that tallyra-service has stored, and sets "
          "policies.",
          "tallyra") {
    m_App.require_subcommand(1);
    m_App.footer("The scripts of shells call 'tallyra complete'; see tallyra(1).");
}

CLI::App& CCommandLine::Add(const char* pName, const char* pText, Function run) {
    return AddBelow(m_App, pName, pText, std::move(run));
}

CLI::App& CCommandLine::AddBelow(CLI::App& parent, const char* pName, const char* pText,
                                 Function run) {
    CLI::App& command = *parent.add_subcommand(pName, pText);
    AddDatabase(command, m_Context.db);
    // Before the options that take names of events: the parser goes by this order.
    command.add_option_function<std::string>(
        "--codes",
        [this](const std::string& file) {
            try {
                UseSiteCodes(file, m_Context.errors);
            } catch (const std::runtime_error& error) {
                throw CLI::ValidationError(error.what());
            }
        },
        "Read the site's names of events and errors from this file");
    m_Commands.emplace_back(&command, std::move(run));
    return command;
}

int CCommandLine::Run() const {
    for (const auto& [pCommand, run] : m_Commands) {
        if (pCommand->parsed()) {
            return run(m_Context);
        }
    }
    return EXIT_USAGE;
}

void AddFormat(CLI::App& app, Context& context, Format unlessTold) {
    AddZone(app, context);
    app.preparse_callback([&context, unlessTold](std::size_t) { context.format = unlessTold; });
    CLI::Option& format = *app.add_option_function<Format>(
        "--format", [&context](Format value) { context.format = value; },
        "Print as table, json, jsonl (an object per line, then a line with \"end\") or csv");
    TakeNames(format, kFormats).type_name("FORMAT");
    app.add_flag_callback(
        "--safe-csv",
        [&context, &format] {
            context.safeCsv = true;
            context.format = format.count() == 0 ? Format::CSV : context.format;
            if (context.format != Format::CSV) {
                throw CLI::ValidationError("--safe-csv", "the format is not csv");
            }
        },
        "Print as csv, with ' before each text that a spreadsheet takes for a formula");
}

void DescribeFleet(CLI::App& app) {
    app.get_option("--db")->description(
        "Use this database of tallyra-service, or that of a fleet: postgresql://...");
}

void AddTime(CLI::App& app, Context& context, const char* pName, std::optional<std::int64_t>& time,
             const char* pText) {
    AddZone(app, context);
    app.add_option_function<std::string>(
        pName,
        [&time, &context, pName](const std::string& text) { time = TimeIn(text, context, pName); },
        pText);
}

// The parser evaluates --since first, since it is added first.
void AddTimes(CLI::App& app, Context& context, std::optional<std::int64_t>& since,
              std::optional<std::int64_t>& until, const char* pSince, const char* pUntil) {
    AddTime(app, context, "--since", since, pSince);
    app.add_option_function<std::string>(
        "--until",
        [&since, &until, &context](const std::string& text) {
            until = TimeIn(text, context, "--until");
            if (since && *since > *until) {
                throw CLI::ValidationError("--until", text + " is before --since");
            }
        },
        pUntil);
}

CLI::Option& TakeNumbers(CLI::Option& option, std::int64_t least, std::int64_t most) {
    // The parser itself would take 010 as octal, and nothing as 0.
    const auto normalize = [least, most](std::string& text) {
        const auto number = Decimal(text);
        if (!number || *number < least || *number > most) {
            return "'" + text + "' is not a number" + DescribeRange(least, most);
        }
        text = std::to_string(*number);
        return std::string();
    };
    return *option.transform(CLI::Validator(normalize, ""))->type_name("NUMBER");
}

CLI::Option& RefuseEmpty(CLI::Option& option) {
    const auto refuse = [](std::string& text) {
        return std::string(text.empty() ? "the name is empty" : "");
    };
    return *option.check(CLI::Validator(refuse, ""));
}

void AddUid(CLI::App& app, std::optional<std::int64_t>& uid, const char* pText) {
    TakeNumbers(*app.add_option("--uid", uid, pText), -1, kLargestUid);
}

void AddOrder(CLI::App& app, Order& order, const std::vector<std::string>& columns) {
    const std::string names = Joined(columns);
    app.add_option_function<std::string>(
        "--sort",
        [&order, columns, names](const std::string& column) {
            if (std::find(columns.begin(), columns.end(), column) == columns.end()) {
                throw CLI::ValidationError("--sort", "no column " + column + "; one of " + names);
            }
            order.column = column;
        },
        "Sort by this column; --limit then selects the first rows: " + names);
    app.add_flag("--reverse", order.reverse, "Print in the opposite order");
}

CLI::Option& AddWords(CLI::App& app, const char* pName,
                      const std::function<void(const std::vector<std::string>&)>& take,
                      const std::string& text) {
    return *app.add_option_function<std::vector<std::string>>(pName, take, text)
                ->delimiter(',')
                ->allow_extra_args(false);
}

void Filter::AddTimes(CLI::App& app, Context& context) {
    ::AddTimes(app, context, since, until,
               "Select only what arrived at or after this time: 2026-11-21T07:30, 2026-11-21, "
               "today, @SECONDS, or an age such as 2h",
               "Select only what arrived before this time");
}

void Filter::AddSelection(CLI::App& app) {
    app.add_option("--application", application, "Select only this application");
    app.add_option("--title", title, "Select only titles that contain this text, in any case");
    AddUid(app, uid, "Select only what this user sent; -1: an unknown user");
    AddNetwork(app, network);
    app.add_flag("--errors", errors, "Select only errors, or what has errors");
    TakeNumbers(
        *app.add_option("-n,--limit", limit, "Select at most this many, the newest; -1 for all")
             ->capture_default_str(),
        -1, kNoLimit);
}

void Filter::AddAll(CLI::App& app, Context& context) {
    AddTimes(app, context);
    app.add_flag("--by-record-time", byRecordTime,
                 "Let --since and --until mean the record's own time, from the player's clock, "
                 "instead of its arrival");
    AddSelection(app);
    app.add_option("--playback", playback,
                   "Select only this playback, or the only one that begins so");
    AddCodes(app, codes);
}
