// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H
#define TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H

/// Has every thread be refused with EAGAIN from here on, as by a system that has none left; or not.
void RefuseThreads(bool refuse);

#endif  // TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H
