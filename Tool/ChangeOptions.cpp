// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Options.h"

#include <limits>
#include <memory>
#include <string>

// The options of the commands that change the store.

namespace {

using Change = std::shared_ptr<PolicyChange>;

CLI::App& AddPolicyCommand(CCommandLine& line, CLI::App& policy, const Change& pChange,
                           const char* pName, const char* pText, CCommandLine::Function run) {
    CLI::App& command = line.AddBelow(policy, pName, pText, std::move(run));
    command
        .add_option("application", pChange->application, "Application identifier; * for all others")
        ->required();
    AddFormat(command, line.Values());
    return command;
}

CLI::Option& AddUsers(CLI::App& app, const Change& pChange, const char* pText) {
    return TakeNumbers(*app.add_option("uid", pChange->uids, pText), 0, kLargestUid);
}

void AddSetPolicy(CCommandLine& line, CLI::App& policy, const Change& pChange) {
    CLI::App& set = AddPolicyCommand(
        line, policy, pChange, "set", "Set the policy of an application",
        [pChange](const Context& context) { return SetPolicy(context, *pChange); });
    TakeNumbers(*set.add_option("value", pChange->value,
                                "0 refuses collection, any other number allows it"),
                std::numeric_limits<int>::min(), std::numeric_limits<int>::max());
    CLI::Option& keep = *set.add_flag_callback(
        "--keep-queries", [pChange] { pChange->keepQueries = 1; },
        "Store this application's URLs as sent");
    set.add_flag_callback(
           "--no-keep-queries", [pChange] { pChange->keepQueries = 0; },
           "Replace user information and values of query parameters, as by default")
        ->excludes(&keep);
    set.callback([pChange] {
        if (!pChange->value && !pChange->keepQueries) {
            throw CLI::RequiredError("a value, --keep-queries or --no-keep-queries");
        }
    });
}

void AddUnsetPolicy(CCommandLine& line, CLI::App& policy, const Change& pChange) {
    AddPolicyCommand(
        line, policy, pChange, "unset", "Remove the policy and the bindings of an application",
        [pChange](const Context& context) { return UnsetPolicy(context, pChange->application); });
}

void AddBindings(CCommandLine& line, CLI::App& policy, const Change& pChange) {
    CLI::App& bind = AddPolicyCommand(
        line, policy, pChange, "bind",
        "Accept an application from these users, besides those that it is bound to, and from no "
        "other",
        [pChange](const Context& context) { return BindApplication(context, *pChange); });
    AddUsers(bind, pChange, "Numeric user ids").required();
    CLI::App& unbind = AddPolicyCommand(
        line, policy, pChange, "unbind", "Remove bindings of an application",
        [pChange](const Context& context) { return UnbindApplication(context, *pChange); });
    AddUsers(unbind, pChange, "Numeric user ids; without any, all");
}

void CheckSelection(const ForgetOptions& options) {
    const int selections = int{options.application.has_value()} +
                           int{options.playback.has_value()} + int{options.uid.has_value()} +
                           int{options.before.has_value()} + int{options.all};
    if (selections != 1) {
        throw CLI::ValidationError(
            "forget", "exactly one of --application, --playback, --uid, --before, --all is needed");
    }
}

}  // namespace

void AddPolicy(CCommandLine& line) {
    CLI::App& policy = *line.App().add_subcommand(
        "policy", "Say which applications are collected, from whom, and how");
    policy.require_subcommand(1);
    AddFormat(line.AddBelow(policy, "list", "Print all policies and bindings", &ListPolicies),
              line.Values());
    const auto pChange = std::make_shared<PolicyChange>();
    AddSetPolicy(line, policy, pChange);
    AddUnsetPolicy(line, policy, pChange);
    AddBindings(line, policy, pChange);
}

void AddForget(CCommandLine& line) {
    const auto pOptions = std::make_shared<ForgetOptions>();
    ForgetOptions& options = *pOptions;
    CLI::App& forget =
        line.Add("forget", "Delete records for good",
                 [pOptions](const Context& context) { return Forget(context, *pOptions); });
    forget.add_option("--application", options.application, "Delete those of this application");
    forget.add_option("--playback", options.playback,
                      "Delete those of this playback, or of the only one that begins so");
    AddUid(forget, options.uid, "Delete what this user sent; -1: an unknown user");
    AddTime(forget, line.Values(), "--before", options.before,
            "Delete what arrived before this time, such as 2026-11-21 or 30d");
    forget.add_flag("--all", options.all, "Delete all records");
    forget.add_flag("--vacuum", options.vacuum,
                    "Also rewrite the whole file; the service cannot store records meanwhile");
    forget.add_flag("--yes", options.yes, "Do not ask for confirmation");
    forget.callback([pOptions] { CheckSelection(*pOptions); });
    AddFormat(forget, line.Values());
}
