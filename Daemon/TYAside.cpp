// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYAside.h"

#include "TYLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

// Problem: a database in WAL mode is three files, and three renames are not one step. The service
// may be killed between any two of them. The log may hold the only copy of committed records, a new
// database of the old name would take a log that was left behind for its own, and SQLite deletes a
// log whose database is missing. Afterwards the renamed file is to be recovered, across restarts,
// exactly once.
//
// Idea: an empty file, the mark, says what is going on. Its name has the time of the renaming and
// the inode of the database:
//
//   tallyra.db.recover-<time>.<inode>   is created before the first rename and removed when the
//                                       recovery has ended
//   tallyra.db.damaged-<time>           the renamed database, with -wal and -shm
//
// If there is a mark but no renamed database, and the path still leads to that inode, the renaming
// was interrupted: Marked finishes it. The inode keeps an intact new database from being renamed
// after somebody has removed the damaged one.
//
// Always true:
// - The database is renamed last. Until then its path leads to it, and a mark tells that its log
//   may have gone ahead.
// - No rename replaces a file, and only empty logs are deleted.

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

constexpr std::array kSuffixes = {"-wal", "-shm", ""};
constexpr const char* kMarkInfix = ".recover-";
constexpr const char* kAsideInfix = ".damaged-";
constexpr const char* kLeftInfix = ".left-";

std::string TimeStamp() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    std::array<char, 32> text;
    std::strftime(text.data(), text.size(), "%Y%m%dT%H%M%SZ", &utc);
    return text.data();
}

bool Exists(const std::string& name) {
    std::error_code ignored;
    return std::filesystem::symlink_status(name, ignored).type() !=
           std::filesystem::file_type::not_found;
}

bool IsTaken(const std::string& name) {
    return std::any_of(kSuffixes.begin(), kSuffixes.end(),
                       [&](const char* pSuffix) { return Exists(name + pSuffix); });
}

bool IsEmptyFile(const std::string& name) {
    std::error_code error;
    return std::filesystem::file_size(name, error) == 0 && !error;
}

[[noreturn]] void Fail(const std::string& file) {
    throw std::system_error(errno, std::generic_category(), "cannot rename the damaged " + file);
}

void Move(const std::string& from, const std::string& to) {
    if (Exists(from) && !Exists(to) && std::rename(from.c_str(), to.c_str()) != 0) {
        Fail(from);
    }
}

std::string InodeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? std::to_string(status.st_ino) : "";
}

// What a mark's name says.
struct Mark {
    std::filesystem::path file;
    std::string time;
    std::string inode;
};

std::string NameOf(const std::string& database) {
    return std::filesystem::path(database).filename().string();
}

std::filesystem::directory_iterator FolderOf(const std::string& database) {
    const std::filesystem::path path(database);
    std::error_code ignored;
    return std::filesystem::directory_iterator(path.has_parent_path() ? path.parent_path() : ".",
                                               ignored);
}

std::vector<Mark> MarksOf(const std::string& database) {
    const std::string begin = NameOf(database) + kMarkInfix;
    std::vector<Mark> marks;
    for (const auto& entry : FolderOf(database)) {
        const std::string name = entry.path().filename().string();
        const std::size_t point = name.rfind('.');
        if (name.starts_with(begin) && point > begin.size()) {
            marks.push_back({entry.path(), name.substr(begin.size(), point - begin.size()),
                             name.substr(point + 1)});
        }
    }
    return marks;
}

}  // namespace

CTYAside::CTYAside(std::string path) : m_strPath(std::move(path)) {}

// Numbers the names of files that are set aside within the same second.
std::string CTYAside::NameAside(const char* pWhy) const {
    const std::string first = m_strPath + pWhy + TimeStamp();
    std::string name = first;
    for (int i = 1; IsTaken(name); ++i) {
        name = first + "-" + std::to_string(i);
    }
    return name;
}

std::string CTYAside::SetAside() const {
    std::string aside = NameAside(kAsideInfix);
    const std::string time = aside.substr(m_strPath.size() + std::string(kAsideInfix).size());
    const std::string mark = m_strPath + kMarkInfix + time + "." + InodeOf(m_strPath);
    const int fd = open(mark.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        Fail(m_strPath);
    }
    close(fd);
    MoveTo(aside);
    return aside;
}

void CTYAside::MoveTo(const std::string& aside) const {
    for (const char* pSuffix : kSuffixes) {
        Move(m_strPath + pSuffix, aside + pSuffix);
    }
}

std::vector<std::string> CTYAside::Marked() const {
    std::vector<std::string> marked;
    for (const Mark& mark : MarksOf(m_strPath)) {
        const std::string aside = m_strPath + kAsideInfix + mark.time;
        if (!Exists(aside) && mark.inode == InodeOf(m_strPath)) {
            MoveTo(aside);
        }
        if (Exists(aside)) {
            marked.push_back(aside);
        } else {
            Unmark(aside);
        }
    }
    std::sort(marked.begin(), marked.end());
    return marked;
}

void CTYAside::Unmark(const std::string& aside) const {
    for (const Mark& mark : MarksOf(m_strPath)) {
        if (aside.ends_with(kAsideInfix + mark.time)) {
            std::error_code ignored;
            std::filesystem::remove(mark.file, ignored);
        }
    }
}

void CTYAside::LeaveLog(const std::vector<std::string>& files) const {
    const bool hasRecords = std::any_of(files.begin(), files.end(), [](const std::string& file) {
        return file.ends_with("-wal") && Exists(file) && !IsEmptyFile(file);
    });
    const std::string aside = NameAside(kLeftInfix);
    for (const std::string& file : files) {
        std::error_code ignored;
        if (hasRecords) {
            std::rename(file.c_str(), (aside + file.substr(file.size() - 4)).c_str());
        } else {
            std::filesystem::remove(file, ignored);
        }
    }
    if (hasRecords) {
        TY_LOG_ERROR("some records of the moved file are still in its log, now %s-wal",
                     aside.c_str());
    }
}

std::int64_t CTYAside::Bytes() const {
    const std::string database = NameOf(m_strPath);
    std::uintmax_t bytes = 0;
    for (const auto& entry : FolderOf(m_strPath)) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with(database + kAsideInfix) || name.starts_with(database + kLeftInfix)) {
            std::error_code error;
            const std::uintmax_t size = entry.file_size(error);
            bytes += error ? 0 : size;
        }
    }
    return static_cast<std::int64_t>(bytes);
}

void CTYAside::LeaveOrphanedLog() const {
    if (!Exists(m_strPath)) {
        LeaveLog({m_strPath + "-wal", m_strPath + "-shm"});
    }
}
