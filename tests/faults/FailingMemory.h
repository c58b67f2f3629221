// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H
#define TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H

/// Memory of a whole process that runs out at a chosen moment. What runs out is up to the source
/// that is linked with this: FailingNew.cpp has operator new fail, FailingMalloc.cpp also the
/// allocations of C, and with them those of libdbus and GLib.
///
/// Threads: allocations of all threads count, in the order in which they come.
class CFailingMemory {
  public:
    /// Begins to count.
    /// @param nth      the allocation that fails, from 1
    /// @param forGood  whether all behind it fail too
    static void Arm(long nth, bool forGood);
    /// From now on every allocation succeeds.
    static void Disarm();
    /// @return whether an allocation has failed
    static bool HasFailed();

    /// What the replaced allocation functions ask.
    /// @return whether this allocation has to fail
    static bool FailsNow();
};

#endif  // TALLYRA_TESTS_FAULTS_FAILINGMEMORY_H
