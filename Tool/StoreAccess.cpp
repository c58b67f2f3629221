// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "StoreAccess.h"

#include "TYStorePath.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string UserName(uid_t uid) {
    const passwd* pUser = getpwuid(uid);
    return pUser != nullptr ? pUser->pw_name : std::to_string(uid);
}

std::string GroupName(gid_t gid) {
    const group* pGroup = getgrgid(gid);
    return pGroup != nullptr ? pGroup->gr_name : std::to_string(gid);
}

const char* OrAsRoot(uid_t owner) {
    return owner == 0 ? "" : ", or as root";
}

// Opening a pipe could block for ever, and SQLite takes an empty file for an empty database.
std::optional<std::string> DescribeWrongKind(const std::string& db) {
    struct stat info {};
    if (stat(db.c_str(), &info) != 0) {
        return std::nullopt;
    }
    if (!S_ISREG(info.st_mode)) {
        return "cannot read " + db +
               (S_ISDIR(info.st_mode) ? ": it is a folder" : ": it is no file");
    }
    return info.st_size == 0 ? std::optional("cannot read " + db + ": it is empty") : std::nullopt;
}

std::string DescribeMissing(const std::string& db) {
    std::vector<std::string> looked = StorePathsToRead();
    if (std::ranges::find(looked, db) == looked.end()) {
        looked = {db};
    }
    std::string text = "no store at " + looked[0];
    for (std::size_t i = 1; i < looked.size(); ++i) {
        text += " or " + looked[i];
    }
    return text +
           "; start tallyra-service, which creates it, or name another with --db or TALLYRA_DB";
}

// The first folder on the way to a file that this user may not search; otherwise the file.
fs::path FindBarrier(const std::string& db) {
    fs::path file = fs::absolute(FollowLinks(db));
    fs::path folder;
    for (const fs::path& part : file.parent_path()) {
        folder /= part;
        if (eaccess(folder.c_str(), X_OK) != 0) {
            return folder;
        }
    }
    return file;
}

std::string DescribeDenied(const std::string& db) {
    const fs::path barrier = FindBarrier(db);
    std::string denied = "cannot read " + db + ": permission denied";
    struct stat info {};
    if (stat(barrier.c_str(), &info) != 0) {
        return denied;
    }
    const mode_t forGroup = S_ISDIR(info.st_mode) ? S_IXGRP : S_IRGRP;
    const std::string owner = UserName(info.st_uid);
    if ((info.st_mode & forGroup) == 0 || info.st_gid == 0) {
        return denied + "; run this as user " + owner + ", to whom " + barrier.string() +
               " belongs" + OrAsRoot(info.st_uid);
    }
    const std::string group = GroupName(info.st_gid);
    return denied + "; " + barrier.string() + " is open to user " + owner + " and group " + group +
           ": run 'sudo usermod -aG " + group + " " + UserName(geteuid()) +
           "' and log in again, or run this as root";
}

}  // namespace

std::optional<std::string> ObstacleToReading(const std::string& db) {
    if (eaccess(db.c_str(), R_OK) == 0) {
        return DescribeWrongKind(db);
    }
    switch (errno) {
        case ENOENT:
        case ENOTDIR:
            return DescribeMissing(db);
        case EACCES:
            return DescribeDenied(db);
        default:
            return std::nullopt;
    }
}

std::optional<std::string> ObstacleToWriting(const std::string& db) {
    struct stat info {};
    if (eaccess(db.c_str(), W_OK) == 0 || errno != EACCES || stat(db.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return "cannot change " + db + ": permission denied; run this as user " +
           UserName(info.st_uid) + ", to whom it belongs" + OrAsRoot(info.st_uid);
}
