// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStorePath.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace {

// As many as the kernel follows.
constexpr int kMaxLinks = 40;

constexpr const char* kSystemStore = "/var/lib/tallyra/tallyra.db";

bool MayExist(const std::string& path) {
    return access(path.c_str(), F_OK) == 0 || errno == EACCES;
}

}  // namespace

std::string DefaultStorePath() {
    if (geteuid() == 0) {
        return kSystemStore;
    }
    const char* pState = std::getenv("XDG_STATE_HOME");
    const char* pHome = std::getenv("HOME");
    const std::string state = pState != nullptr && *pState == '/'
                                  ? std::string(pState)
                                  : std::string(pHome != nullptr ? pHome : "") + "/.local/state";
    return state + "/tallyra/tallyra.db";
}

std::vector<std::string> StorePathsToRead() {
    const char* pNamed = std::getenv("TALLYRA_DB");
    if (pNamed != nullptr && *pNamed != '\0') {
        return {pNamed};
    }
    std::vector<std::string> paths = {DefaultStorePath()};
    if (paths[0] != kSystemStore) {
        paths.emplace_back(kSystemStore);
    }
    return paths;
}

std::string ChooseStore(const std::vector<std::string>& paths) {
    const auto found = std::ranges::find_if(paths, MayExist);
    return found == paths.end() ? paths.at(0) : *found;
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

bool IsServerUrl(const std::string& db) {
    return db.starts_with("postgresql://") || db.starts_with("postgres://");
}
