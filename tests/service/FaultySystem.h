// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_FAULTYSYSTEM_H
#define TALLYRA_TESTS_SERVICE_FAULTYSYSTEM_H

#include "Test.h"

#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/syscall.h>

/// The system calls that write, sync and open files, for SQLite and for the keeper.
enum class SystemCall { OPEN, WRITE, SYNC, TRUNCATE, UNLINK, MAP, RENAME, COUNT };

inline std::string NameOf(SystemCall call) {
    constexpr std::array kNames = {"Open", "Write", "Sync", "Truncate", "Unlink", "Map", "Rename"};
    return kNames.at(static_cast<std::size_t>(call));
}

/// Makes the n-th system call of a kind fail, or end the process.
///
/// SQLite makes its calls through a table that can be changed; FaultySystem.cpp replaces fdatasync
/// and rename, which it calls directly or which the keeper calls. Counting begins with Fail or
/// Kill.
///
/// Threads: one; one object at a time.
class CFaultySystem {
  public:
    CFaultySystem();
    ~CFaultySystem();
    CFaultySystem(const CFaultySystem&) = delete;
    CFaultySystem& operator=(const CFaultySystem&) = delete;

    /// Only counts.
    static void Count() { Set(0, 0, 0); }
    /// Makes the calls from the n-th on fail.
    /// @param times  how many of them
    static void Fail(SystemCall call, int error, int n, int times);
    /// Ends the process with _exit at the n-th call.
    static void Kill(SystemCall call, int n) { Fail(call, kKill, n, 1); }
    static void Repair() { Set(0, 0, 0); }
    /// @return the number of calls since counting began
    static int Calls(SystemCall call) { return s_Calls.at(static_cast<std::size_t>(call)); }

    /// Counts a call.
    /// @return whether it must fail; errno is then set
    static bool MustFail(SystemCall call);

    static constexpr int kKilled = 99;  ///< exit code of a process that Kill has ended

  private:
    static constexpr int kKill = -1;

    static void Set(int error, int first, int last);

    static inline std::array<int, static_cast<std::size_t>(SystemCall::COUNT)> s_Calls{};
    static inline SystemCall s_Call = SystemCall::COUNT;
    static inline int s_nError = 0;
    static inline int s_nFirst = 0;
    static inline int s_nLast = 0;
};

#endif  // TALLYRA_TESTS_SERVICE_FAULTYSYSTEM_H
