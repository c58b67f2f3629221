// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStorePath.h"

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

// As many as the kernel follows.
constexpr int kMaxLinks = 40;

}  // namespace

std::string DefaultStorePath() {
    if (geteuid() == 0) {
        return "/var/lib/tallyra/tallyra.db";
    }
    const char* pState = std::getenv("XDG_STATE_HOME");
    const char* pHome = std::getenv("HOME");
    const std::string state = pState != nullptr && *pState == '/'
                                  ? std::string(pState)
                                  : std::string(pHome != nullptr ? pHome : "") + "/.local/state";
    return state + "/tallyra/tallyra.db";
}

std::string FollowLinks(const std::string& path) {
    std::filesystem::path file = path;
    for (int i = 0; i < kMaxLinks; ++i) {
        std::error_code error;
        const std::filesystem::path target = std::filesystem::read_symlink(file, error);
        if (error) {
            break;
        }
        file = file.parent_path() / target;
    }
    return file.string();
}
