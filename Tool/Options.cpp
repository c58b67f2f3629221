// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include "EventNames.h"
#include "TimeText.h"

#include <map>
#include <string>

namespace {

const std::map<std::string, Format> kRowFormats{
    {"table", Format::TABLE}, {"json", Format::JSON}, {"csv", Format::CSV}};

}  // namespace

CCommandLine::CCommandLine(Context& context)
    : m_Context(context),
      m_App(
          "Prints, exports and deletes the records that tallyra-service has stored, and sets "
          "policies.",
          "tallyra") {
    m_App.require_subcommand(1);
}

CLI::App& CCommandLine::Add(const char* pName, const char* pText, Function run) {
    return AddBelow(m_App, pName, pText, std::move(run));
}

CLI::App& CCommandLine::AddBelow(CLI::App& parent, const char* pName, const char* pText,
                                 Function run) {
    CLI::App& command = *parent.add_subcommand(pName, pText);
    command.add_option("--db", m_Context.db, "Use this database of tallyra-service")
        ->capture_default_str();
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

void AddFormat(CLI::App& app, Context& context) {
    app.add_option("--format", context.format, "Print as table, json or csv")
        ->transform(CLI::CheckedTransformer(kRowFormats, CLI::ignore_case).description("TEXT"));
}

void AddTime(CLI::App& app, const char* pName, std::optional<std::int64_t>& time, std::int64_t now,
             const char* pText) {
    app.add_option_function<std::string>(
        pName,
        [&time, now, pName](const std::string& text) {
            time = ParseTime(text, now);
            if (!time) {
                throw CLI::ValidationError(pName, "not a time: " + text);
            }
        },
        pText);
}

void AddLimit(CLI::App& app, Filter& filter) {
    app.add_option("--limit", filter.limit, "Select at most this many, the newest; -1 for all")
        ->capture_default_str();
}

void Filter::AddTimes(CLI::App& app, std::int64_t now) {
    AddTime(app, "--since", since, now,
            "Select only what arrived at or after this time: 2026-11-21T07:30, @SECONDS, or an "
            "age such as 2h");
    AddTime(app, "--until", until, now, "Select only what arrived before this time");
}

void Filter::AddAll(CLI::App& app, std::int64_t now) {
    AddTimes(app, now);
    app.add_option("--application", application, "Select only this application");
    app.add_option("--playback", playback, "Select only this playback");
    AddLimit(app, *this);
    app.add_option_function<std::string>(
        "--code",
        [this](const std::string& text) {
            code = EventCode(text);
            if (!code) {
                throw CLI::ValidationError("--code", "not an event: " + text);
            }
        },
        "Select only this event: a code, or a name such as BUFFERING_START");
}
