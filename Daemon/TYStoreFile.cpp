// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreFile.h"

#include "TYSchema.h"

#include <sys/statvfs.h>

#include <array>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

// Problem: the path comes from an option, and options are mistyped. A file that is not ours must
// not be renamed as damaged, replaced, or changed in any way. SQLite itself would change it: it
// switches the file to WAL mode before the schema shows whose file it is.
//
// Idea: look at the header before SQLite opens the file for writing. Bytes 68 to 71 hold the
// application id; only a file that has ours is ever set aside, even if everything else in it is
// damaged. Two kinds of files without the id are ours as well: an empty one, and a database that
// was created but has no schema yet, because its first transaction was not finished. That one may
// have all its content in its log, so the log is asked too.
//
// The header is read through SQLite. A descriptor of our own would be simpler, but closing it would
// drop all locks that this process holds on the file.
//
// Always true:
// - Checking writes nothing: an immutable connection opens no other file and takes no lock, and a
//   read-only one does not checkpoint when it is closed.
// - What cannot be recognised as ours is another's.

namespace {

constexpr const char* kInMemory = ":memory:";
constexpr std::string_view kMagic("SQLite format 3\0", 16);
constexpr std::size_t kVersionOffset = 60;
constexpr std::size_t kIdOffset = 68;
constexpr std::size_t kHeaderSize = 100;

std::int64_t SizeOf(const std::string& path) {
    std::error_code error;
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    return error ? 0 : static_cast<std::int64_t>(size);
}

// Returns nothing if the file is empty. A shorter file is filled up with zeros.
std::optional<std::string> HeaderOf(const CTYDatabase& database) {
    sqlite3_file* pFile = nullptr;
    sqlite3_file_control(database.Handle(), "main", SQLITE_FCNTL_FILE_POINTER, &pFile);
    sqlite3_int64 size = 0;
    std::string header(kHeaderSize, '\0');
    int result = pFile->pMethods->xFileSize(pFile, &size);
    if (result == SQLITE_OK && size == 0) {
        return std::nullopt;
    }
    if (result == SQLITE_OK) {
        result = pFile->pMethods->xRead(pFile, header.data(), kHeaderSize, 0);
    }
    if (result != SQLITE_OK && result != SQLITE_IOERR_SHORT_READ) {
        throw CTYDatabaseError(result, "cannot read the file's header");
    }
    return header;
}

std::int64_t NumberIn(std::string_view header, std::size_t offset) {
    std::uint32_t number = 0;
    for (const char byte : header.substr(offset, 4)) {
        number = number << 8 | static_cast<unsigned char>(byte);
    }
    return number;
}

std::int64_t ApplicationIn(std::string_view header) {
    return NumberIn(header, kIdOffset);
}

// SQLite would notice only after it has opened the file, and empty its log when closing it. A store
// gets its version in one transaction with its application id.
void CheckVersion(std::string_view header) {
    const auto version = static_cast<std::int32_t>(NumberIn(header, kVersionOffset));
    if (header.starts_with(kMagic) && version < 1) {
        throw CTYDatabaseError(SQLITE_CORRUPT, "the file has lost its schema version");
    }
    if (header.starts_with(kMagic) && version > SchemaVersion()) {
        throw CTYDatabaseError(SQLITE_MISMATCH,
                               "the database has schema version " + std::to_string(version) +
                                   ", this program supports " + std::to_string(SchemaVersion()));
    }
}

// True for a database of ours or one without any content.
bool IsOursOrBlank(CTYDatabase& database) {
    const std::int64_t id = database.Number("PRAGMA application_id");
    return id == ApplicationId() ||
           (id == 0 && database.Number("SELECT count(*) FROM sqlite_schema") == 0);
}

}  // namespace

CTYStoreFile::CTYStoreFile(std::string path)
    : m_strPath(std::move(path)),
      m_strFolder(std::filesystem::path(m_strPath).parent_path().string()) {}

bool CTYStoreFile::IsInMemory() const {
    return m_strPath == kInMemory;
}

bool CTYStoreFile::Exists() const {
    std::error_code ignored;
    return std::filesystem::exists(m_strPath, ignored);
}

void CTYStoreFile::CheckUsable() const {
    if (!IsInMemory()) {
        CheckDisk();
        CheckOwner();
    }
}

bool CTYStoreFile::IsForeign() const {
    try {
        CheckOwner();
    } catch (const CTYDatabaseError& error) {
        return error.Kind() == SQLITE_MISMATCH;
    }
    return false;
}

void CTYStoreFile::CheckDisk() const {
    const std::optional<Space> space = DiskSpace();
    if (space && space->total < kSmallestDisk) {
        throw CTYDatabaseError(SQLITE_MISMATCH, m_strPath + ": its file system has " +
                                                    std::to_string(space->total >> 10) +
                                                    " KiB, a store needs " +
                                                    std::to_string(kSmallestDisk >> 10));
    }
}

void CTYStoreFile::CheckOwner() const {
    if (!Exists()) {
        return;
    }
    std::error_code error;
    if (!std::filesystem::is_regular_file(m_strPath, error) && !error) {
        throw CTYDatabaseError(SQLITE_MISMATCH, m_strPath + ": not a regular file");
    }
    CTYDatabase file(m_strPath, CTYDatabase::Mode::IMMUTABLE);
    const std::optional<std::string> header = HeaderOf(file);
    if (!header) {
        return;
    }
    if (ApplicationIn(*header) == ApplicationId()) {
        CheckVersion(*header);
        return;
    }
    if (!header->starts_with(kMagic) || ApplicationIn(*header) != 0 || !IsJustCreated(file)) {
        throw CTYDatabaseError(SQLITE_MISMATCH,
                               m_strPath + ": the file belongs to another application");
    }
}

bool CTYStoreFile::IsJustCreated(CTYDatabase& file) const {
    try {
        if (!IsOursOrBlank(file)) {
            return false;
        }
        if (LogBytes() == 0) {
            return true;
        }
        CTYDatabase withLog(m_strPath, CTYDatabase::Mode::READ_ONLY);
        return IsOursOrBlank(withLog);
    } catch (const CTYDatabaseError&) {
        return false;
    }
}

std::int64_t CTYStoreFile::Bytes() const {
    return SizeOf(m_strPath);
}

std::int64_t CTYStoreFile::LogBytes() const {
    return SizeOf(m_strPath + "-wal");
}

std::optional<CTYStoreFile::Space> CTYStoreFile::DiskSpace() const {
    struct statvfs status {};
    if (IsInMemory() || statvfs(m_strFolder.empty() ? "." : m_strFolder.c_str(), &status) != 0 ||
        status.f_blocks == 0) {
        return std::nullopt;
    }
    const auto block = static_cast<std::int64_t>(status.f_frsize);
    return Space{static_cast<std::int64_t>(status.f_blocks) * block,
                 static_cast<std::int64_t>(status.f_bavail) * block};
}
