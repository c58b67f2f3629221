// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_UNFREEDBYDESIGN_H
#define TALLYRA_TESTS_FAULTS_UNFREEDBYDESIGN_H

// Null unless the leak checker is linked.
extern "C" void __lsan_disable() __attribute__((weak));  // NOLINT(bugprone-reserved-identifier)
extern "C" void __lsan_enable() __attribute__((weak));   // NOLINT(bugprone-reserved-identifier)

/// The leak checker ignores allocations of the calling thread in a scope. Only for memory that the
/// library does not free under a fault, by design.
class CUnfreedByDesign {
  public:
    CUnfreedByDesign() {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
    }
    ~CUnfreedByDesign() {
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
    }
    CUnfreedByDesign(const CUnfreedByDesign&) = delete;
    CUnfreedByDesign& operator=(const CUnfreedByDesign&) = delete;
};

#endif  // TALLYRA_TESTS_FAULTS_UNFREEDBYDESIGN_H
