// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "OutputFile.h"

#include "TYStorePath.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string_view>

// Problem: an export holds what people watched. It is often written by root, into folders that
// other users can write to, and another program may pick it up at any time.
//
// Idea: write to a temporary file next to the final one, with a name from mkostemp, which nobody
// can guess and which never opens an existing file. mkostemp makes it readable by its owner only.
// Commit sets the owner and the permissions, syncs, and renames. rename() replaces whatever has the
// name then, also a symbolic link that appeared meanwhile, and follows nothing.
//
// Always true:
// - The path never names an incomplete export. An export killed by SIGKILL leaves its temporary
//   file.
// - No symbolic link at the path is followed. To write through one, use standard output.
// - Nobody can read an export who could not read the file that it replaces: if the group of that
//   file cannot be kept, its group permissions are not kept either.
// - No database is replaced, and neither the log of the store nor its index: a mistyped path must
//   not delete all records.

namespace {

constexpr mode_t kPermissions = 0777;
constexpr mode_t kGroupPermissions = 0070;

[[noreturn]] void Fail(int error) {
    throw COutputError(std::strerror(error));
}

bool IsDatabase(const std::string& path) {
    constexpr std::string_view kMagic("SQLite format 3\0", 16);
    std::array<char, kMagic.size()> begin{};
    std::ifstream file(path, std::ios::binary);
    file.read(begin.data(), begin.size());
    return file.gcount() == begin.size() && std::string_view(begin.data(), begin.size()) == kMagic;
}

// The store itself, or one of the files that SQLite keeps beside it, whether it exists or not.
bool IsOfStore(const std::string& path, const std::string& store) {
    namespace fs = std::filesystem;
    std::error_code ignored;
    const fs::path file = fs::weakly_canonical(path, ignored);
    for (const char* pSuffix : {"", "-wal", "-shm", "-journal"}) {
        const std::string own = FollowLinks(store) + pSuffix;
        if (fs::equivalent(path, own, ignored) || fs::weakly_canonical(own, ignored) == file) {
            return true;
        }
    }
    return false;
}

}  // namespace

void COutputFile::CBuffer::Attach(int fd) {
    m_nFd = fd;
    setp(m_Bytes.data(), m_Bytes.data() + m_Bytes.size());
}

COutputFile::CBuffer::int_type COutputFile::CBuffer::overflow(int_type character) {
    if (sync() != 0) {
        return traits_type::eof();
    }
    if (!traits_type::eq_int_type(character, traits_type::eof())) {
        sputc(traits_type::to_char_type(character));
    }
    return traits_type::not_eof(character);
}

int COutputFile::CBuffer::sync() {
    for (const char* pAt = pbase(); pAt < pptr();) {
        const ssize_t written = write(m_nFd, pAt, static_cast<std::size_t>(pptr() - pAt));
        if (written < 0 && errno != EINTR) {
            m_nError = errno;
            return -1;
        }
        pAt += written > 0 ? written : 0;
    }
    setp(m_Bytes.data(), m_Bytes.data() + m_Bytes.size());
    return 0;
}

COutputFile::COutputFile(const std::string& path, std::optional<mode_t> mode,
                         const std::string& store)
    : m_strPath(path), m_nOwner(geteuid()), m_nGroup(getegid()) {
    struct stat found {};
    const bool exists = lstat(path.c_str(), &found) == 0;
    if (exists && S_ISLNK(found.st_mode)) {
        throw COutputError("it is a symbolic link");
    }
    if (IsOfStore(path, store)) {
        throw COutputError("it belongs to the store");
    }
    if (exists && S_ISREG(found.st_mode)) {
        if (IsDatabase(path)) {
            throw COutputError("it is a database");
        }
        m_nMode = found.st_mode & kPermissions;
        m_nOwner = found.st_uid;
        m_nGroup = found.st_gid;
    }
    m_nMode = mode.value_or(m_nMode);
    !exists || S_ISREG(found.st_mode) ? OpenTemporary() : OpenDirectly();
    m_Buffer.Attach(m_nFd);
}

COutputFile::~COutputFile() {
    close(m_nFd);
    if (!m_strTemporary.empty()) {
        unlink(m_strTemporary.c_str());
    }
}

bool COutputFile::IsTerminal() const {
    return isatty(m_nFd) == 1;
}

void COutputFile::OpenTemporary() {
    std::string name = m_strPath + ".partial-XXXXXX";
    m_nFd = m_Removal.CreateTemporary(name);
    if (m_nFd < 0) {
        Fail(errno);
    }
    m_strTemporary = name;
}

void COutputFile::OpenDirectly() {
    m_nFd = open(m_strPath.c_str(), O_WRONLY | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
    if (m_nFd < 0) {
        Fail(errno);
    }
}

void COutputFile::SetPermissions() {
    const bool isOwn = m_nOwner == geteuid() && m_nGroup == getegid();
    if (!isOwn && fchown(m_nFd, m_nOwner, m_nGroup) != 0) {
        m_nMode &= ~kGroupPermissions;
    }
    if (fchmod(m_nFd, m_nMode) != 0) {
        Fail(errno);
    }
}

void COutputFile::Commit() {
    m_Stream.flush();
    if (!m_Stream.good()) {
        Fail(m_Buffer.Error());
    }
    if (m_strTemporary.empty()) {
        return;
    }
    SetPermissions();
    // Without fsync, a power failure after the rename could leave an empty file.
    if (fsync(m_nFd) != 0 || std::rename(m_strTemporary.c_str(), m_strPath.c_str()) != 0) {
        Fail(errno);
    }
    m_strTemporary.clear();
}
