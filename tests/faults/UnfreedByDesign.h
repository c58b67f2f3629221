// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_UNFREEDBYDESIGN_H
#define TALLYRA_TESTS_FAULTS_UNFREEDBYDESIGN_H

// Theirs when the leak checker is linked, null otherwise.
extern "C" void __lsan_disable() __attribute__((weak));  // NOLINT(bugprone-reserved-identifier)
extern "C" void __lsan_enable() __attribute__((weak));   // NOLINT(bugprone-reserved-identifier)

/// Has the leak checker pass over what this thread allocates in a scope: for what the library
/// leaves unfreed by design under a fault, and nothing else.
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
