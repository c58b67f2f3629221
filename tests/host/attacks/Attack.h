// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_ATTACKS_ATTACK_H
#define TALLYRA_TESTS_HOST_ATTACKS_ATTACK_H

#include "../Player.h"
#include "Eventually.h"
#include "doubles/PlatformDouble.h"

#include <string>

// Each attack is a function that runs in a process of its own and returns its exit code. The log of
// the process is the platform double's; all other platform calls go to the Linux platform.

/// Makes a collector, and waits until its sender runs.
Collector CollectorThatCollects();

/// @return whether `count` log lines with that text came within kPatience
bool AwaitLog(const std::string& text, std::size_t count = 1);
/// @return the number of error lines in the log
std::size_t CountErrors();

/// Deletes the collector.
/// @return whether that took at most four seconds
bool DeletesInTime(Collector collector);

/// Reports a condition that does not hold on standard error.
/// @return the condition
bool Holds(bool condition, const char* what);

int MayDeleteTheCollectorInAForkedChild();
int MayExitAForkedChildWithAGlobalCollector();
int MayReportInAForkedChild();
int MayMakeACollectorInAForkedChild();
int MayCloseAllDescriptors();
int MayReuseTheNumbersOfClosedDescriptors();
int MayUseUpAllDescriptors(int readyFd);
int MayCancelAThreadThatMakesAndDeletesCollectors();
int MayHaveATinyDefaultStack();
int MayHandleAFaultOnALibraryThread();
int MaySetItsSigpipeHandlerWhileAnotherThreadConnects();
int MayPlayAUrlOfFiveMebibytes();

#endif  // TALLYRA_TESTS_HOST_ATTACKS_ATTACK_H
