// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Kpi.h"
#include "Options.h"

#include <map>
#include <memory>
#include <string>

namespace {

const std::map<std::string, GroupBy> kGroups{{"application", GroupBy::APPLICATION},
                                             {"version", GroupBy::VERSION},
                                             {"player", GroupBy::PLAYER},
                                             {"network", GroupBy::NETWORK},
                                             {"content-type", GroupBy::CONTENT_TYPE},
                                             {"drm", GroupBy::DRM},
                                             {"hour", GroupBy::HOUR},
                                             {"day", GroupBy::DAY}};

/// The options as given.
struct Given {
    KpiOptions options;
    std::optional<std::int64_t> since;
    std::optional<std::int64_t> until;
};

int RunKpi(const Context& context, const Given& given) {
    KpiOptions options = given.options;
    options.selection.since = given.since.value_or(options.selection.since);
    options.selection.until = given.until.value_or(options.selection.until);
    return PrintKpi(context, options);
}

}  // namespace

void AddKpi(CCommandLine& line) {
    const auto pGiven = std::make_shared<Given>();
    CLI::App& command =
        line.Add("kpi", "Print key figures: start-up, failures, stalls, media watched",
                 [pGiven](const Context& context) { return RunKpi(context, *pGiven); });
    DescribeFleet(command);
    CLI::Option& by = *command.add_option(
        "--by", pGiven->options.by,
        "Group by application, version, player, network, content-type, drm, or by the hour or day "
        "of the start");
    TakeNames(by, kGroups).type_name("WHAT");
    AddTimes(command, line.Values(), pGiven->since, pGiven->until,
             "Select only playbacks that began at or after this time, by the player's clock",
             "Select only playbacks that began before this time, by the player's clock");
    command.add_option("--application", pGiven->options.selection.application,
                       "Select only this application");
    AddFormat(command, line.Values());
}
