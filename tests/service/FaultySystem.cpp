// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FaultySystem.h"

namespace {

/// A function that counts calls and passes them on to the original.
template <SystemCall kCall, class Result, class... Arguments>
struct Wrapper {
    static inline Result (*s_pOriginal)(Arguments...) = nullptr;

    static Result Call(Arguments... arguments) {
        if (CFaultySystem::MustFail(kCall)) {
            return (Result)-1;  // NOLINT: a number for most, MAP_FAILED for mmap
        }
        return s_pOriginal(arguments...);
    }
    static void Install(const char* pName) {
        sqlite3_vfs* pVfs = sqlite3_vfs_find(nullptr);
        const sqlite3_syscall_ptr pCall = pVfs->xGetSystemCall(pVfs, pName);
        if (pCall != nullptr) {
            s_pOriginal = reinterpret_cast<Result (*)(Arguments...)>(pCall);
            pVfs->xSetSystemCall(pVfs, pName, reinterpret_cast<sqlite3_syscall_ptr>(&Call));
        }
    }
};

// Has the type of pwrite, but needs an original of its own.
struct WriteAt64 {
    static inline ssize_t (*s_pOriginal)(int, const void*, std::size_t, off64_t) = nullptr;

    static ssize_t Call(int fd, const void* pBytes, std::size_t size, off64_t offset) {
        return CFaultySystem::MustFail(SystemCall::WRITE) ? -1
                                                          : s_pOriginal(fd, pBytes, size, offset);
    }
    static void Install() {
        sqlite3_vfs* pVfs = sqlite3_vfs_find(nullptr);
        const sqlite3_syscall_ptr pCall = pVfs->xGetSystemCall(pVfs, "pwrite64");
        if (pCall != nullptr) {
            s_pOriginal = reinterpret_cast<decltype(s_pOriginal)>(pCall);
            pVfs->xSetSystemCall(pVfs, "pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(&Call));
        }
    }
};

}  // namespace

// SQLite and std::rename call these by name, and find the ones of the program first.

// Does not sync: no test cuts the power, and thousands of runs would wait for the disk.
extern "C" __attribute__((visibility("default"))) int fdatasync(int /*fd*/) {
    return CFaultySystem::MustFail(SystemCall::SYNC) ? -1 : 0;
}

extern "C" __attribute__((visibility("default"))) int rename(const char* pFrom,
                                                             const char* pTo) noexcept {
    return CFaultySystem::MustFail(SystemCall::RENAME)
               ? -1
               : static_cast<int>(syscall(SYS_renameat2, AT_FDCWD, pFrom, AT_FDCWD, pTo, 0));
}

CFaultySystem::CFaultySystem() {
    Wrapper<SystemCall::OPEN, int, const char*, int, int>::Install("open");
    Wrapper<SystemCall::WRITE, ssize_t, int, const void*, std::size_t>::Install("write");
    Wrapper<SystemCall::WRITE, ssize_t, int, const void*, std::size_t, off_t>::Install("pwrite");
    WriteAt64::Install();
    Wrapper<SystemCall::TRUNCATE, int, int, off_t>::Install("ftruncate");
    Wrapper<SystemCall::UNLINK, int, const char*>::Install("unlink");
    Wrapper<SystemCall::MAP, void*, void*, std::size_t, int, int, int, off_t>::Install("mmap");
    Count();
}

CFaultySystem::~CFaultySystem() {
    Repair();
    sqlite3_vfs* pVfs = sqlite3_vfs_find(nullptr);
    pVfs->xSetSystemCall(pVfs, nullptr, nullptr);
}

void CFaultySystem::Set(int error, int first, int last) {
    s_Calls = {};
    s_nError = error;
    s_nFirst = first;
    s_nLast = last;
}

void CFaultySystem::Fail(SystemCall call, int error, int n, int times) {
    s_Call = call;
    Set(error, n, times < INT_MAX - n ? n + times - 1 : INT_MAX);
}

bool CFaultySystem::MustFail(SystemCall call) {
    const int number = ++s_Calls.at(static_cast<std::size_t>(call));
    if (call != s_Call || number < s_nFirst || number > s_nLast) {
        return false;
    }
    if (s_nError == kKill) {
        _exit(kKilled);
    }
    errno = s_nError;
    return true;
}
