// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_FAULTYDISK_H
#define TALLYRA_TESTS_SERVICE_FAULTYDISK_H

#include "TemporaryFolder.h"
#include "Test.h"

#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>

/// Makes system calls of SQLite fail, without a mount or a privilege.
///
/// SQLite reaches the operating system through a table of functions, its VFS. While alive, this
/// replaces the default VFS by a copy whose xOpen, xWrite and xSync return an error of the test's
/// choice. Everything else, locks and shared memory included, is the original.
///
/// Threads: one; one object at a time. It must outlive the databases opened meanwhile.
class CFaultyDisk {
  public:
    enum class Call {
        NONE,
        WRITE,
        SYNC,
        OPEN,
        READ_ONLY,  ///< opens databases read-only and fails to open logs, as on a read-only disk
    };

    CFaultyDisk() {
        s_Original = sqlite3_vfs_find(nullptr);
        s_Vfs = *s_Original;
        s_Vfs.zName = "faulty-disk";
        s_Vfs.xOpen = &Open;
        if (sqlite3_vfs_register(&s_Vfs, 1) != SQLITE_OK) {
            throw std::runtime_error("cannot register a VFS");
        }
    }
    ~CFaultyDisk() {
        Repair();
        sqlite3_vfs_unregister(&s_Vfs);
        sqlite3_vfs_register(s_Original, 1);
    }
    CFaultyDisk(const CFaultyDisk&) = delete;
    CFaultyDisk& operator=(const CFaultyDisk&) = delete;

    /// From now on, each of these calls returns that result code.
    static void Fail(Call call, int result) {
        s_Call = call;
        s_nResult = result;
    }
    static void Repair() { s_Call = Call::NONE; }

  private:
    static int Open(sqlite3_vfs* pVfs, const char* pName, sqlite3_file* pFile, int flags,
                    int* pOutFlags) {
        const bool isReadOnlyDisk = s_Call == Call::READ_ONLY;
        pFile->pMethods = nullptr;
        if (s_Call == Call::OPEN || (isReadOnlyDisk && (flags & SQLITE_OPEN_MAIN_DB) == 0)) {
            return s_nResult;
        }
        if (isReadOnlyDisk) {
            flags = SQLITE_OPEN_READONLY | SQLITE_OPEN_MAIN_DB;
        }
        const int result = s_Original->xOpen(pVfs, pName, pFile, flags, pOutFlags);
        if (result == SQLITE_OK) {
            // Databases and logs have tables of their own, which differ only in their locks.
            sqlite3_io_methods& methods = s_Methods[(flags & SQLITE_OPEN_MAIN_DB) != 0 ? 1 : 0];
            s_pOriginalMethods = pFile->pMethods;
            methods = *pFile->pMethods;
            methods.xWrite = &Write;
            methods.xSync = &Sync;
            pFile->pMethods = &methods;
        }
        return result;
    }
    static int Write(sqlite3_file* pFile, const void* pBytes, int size, sqlite3_int64 offset) {
        return s_Call == Call::WRITE ? s_nResult
                                     : s_pOriginalMethods->xWrite(pFile, pBytes, size, offset);
    }
    static int Sync(sqlite3_file* pFile, int flags) {
        return s_Call == Call::SYNC ? s_nResult : s_pOriginalMethods->xSync(pFile, flags);
    }

    static inline sqlite3_vfs* s_Original = nullptr;
    static inline sqlite3_vfs s_Vfs{};
    static inline const sqlite3_io_methods* s_pOriginalMethods = nullptr;
    static inline std::array<sqlite3_io_methods, 2> s_Methods{};
    static inline Call s_Call = Call::NONE;
    static inline int s_nResult = SQLITE_OK;
};

/// A real file system of some MiB, visible only to this process and its children. Mounting it takes
/// the capability CAP_SYS_ADMIN, and moves the process to a mount namespace of its own for good.
class CSmallDisk : public CTemporaryFolder {
  public:
    ~CSmallDisk() { umount2(Path().c_str(), MNT_DETACH); }

    /// @param size  such as "8m"
    bool Mount(const std::string& size) {
        m_strSize = "size=" + size;
        return unshare(CLONE_NEWNS) == 0 &&
               mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && MountWith(0);
    }
    /// @return false while a file is open for writing
    bool SetReadOnly(bool readOnly) const {
        return MountWith(MS_REMOUNT | (readOnly ? MS_RDONLY : 0));
    }
    /// Uses up the free space with a file.
    /// @param rest  bytes that stay free
    void Fill(std::int64_t rest = 0) const {
        std::ofstream ballast(Path() / "ballast");
        while (static_cast<std::int64_t>(std::filesystem::space(Path()).free) > rest &&
               ballast << std::string(4096, 'b') << std::flush) {
        }
    }
    void Empty() const { std::filesystem::remove(Path() / "ballast"); }

  private:
    bool MountWith(unsigned long flags) const {
        return mount("none", Path().c_str(), "tmpfs", flags, m_strSize.c_str()) == 0;
    }

    std::string m_strSize;
};

#endif  // TALLYRA_TESTS_SERVICE_FAULTYDISK_H
