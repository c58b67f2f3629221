// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H
#define TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H

/// From here on, pthread_create fails with EAGAIN, or works again.
void RefuseThreads(bool refuse);

#endif  // TALLYRA_TESTS_FAULTS_REFUSEDTHREADS_H
