// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_TOOL_OTHERUSER_H
#define TALLYRA_TESTS_TOOL_OTHERUSER_H

#include <sys/types.h>

#include <optional>
#include <string>

constexpr const char* kService = "org.veltra.tv.tallyra.service";

/// Where a method call goes.
struct Method {
    std::string path = "/org/veltra/tv/tallyra/service";
    std::string interface = "org.veltra.tv.tallyra.client";
    std::string member = "TYCallFunction";
};

/// Calls a method of the service as a user, with the values of a "Kick", from a process of its own.
/// @return "status 1" for a reply that begins with that status; an error's name; or what else went
///         wrong
std::string CallAs(uid_t user, const std::string& address, const Method& method = {});

/// Asks for the service's name as a user.
/// @return "owner", an error's name, or what else went wrong
std::string OwnNameAs(uid_t user, const std::string& address);

/// @return whether somebody owns the service's name
bool IsOwned(const std::string& address);

/// @return the number of a user
std::optional<uid_t> UserCalled(const char* pName);

/// @return whether a user may run a program
bool MayRun(uid_t user, const std::string& program);

#endif  // TALLYRA_TESTS_TOOL_OTHERUSER_H
