// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H
#define TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H

#include <atomic>

/// Makes allocations of this process fail at a chosen moment. FailingNew.cpp replaces operator new;
/// FailingMalloc.cpp replaces the allocation functions of C, which libdbus and GLib use too.
///
/// Threads: allocations of all threads count, in the order in which they are made.
class CFailingMemory {
  public:
    /// Starts counting.
    /// @param nth      selects the allocation that fails, from 1; 0 for none
    /// @param forGood  whether all later allocations fail too
    static void Arm(long nth, bool forGood) {
        s_nCount = 0;
        s_nNth = nth;
        s_bForGood = forGood;
        s_bArmed = true;
    }
    /// From now on every allocation succeeds.
    static void Disarm() { s_bArmed = false; }
    static bool HasFailed() { return s_bFailed; }
    /// @return the allocations since Arm
    static long Count() { return s_nCount; }

    /// Called by the replaced functions for each allocation.
    /// @return whether this one must fail
    static bool FailsNow() {
        if (!s_bArmed) {
            return false;
        }
        const long number = ++s_nCount;
        const bool fails = number == s_nNth || (s_bForGood && s_nNth > 0 && number > s_nNth);
        s_bFailed = s_bFailed || fails;
        return fails;
    }

  private:
    // Constant-initialised: the first allocations precede all constructors.
    static inline std::atomic<bool> s_bArmed{false};
    static inline std::atomic<bool> s_bForGood{false};
    static inline std::atomic<bool> s_bFailed{false};
    static inline std::atomic<long> s_nNth{0};
    static inline std::atomic<long> s_nCount{0};
};

#endif  // TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H
