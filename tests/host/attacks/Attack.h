// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_ATTACKS_ATTACK_H
#define TALLYRA_TESTS_HOST_ATTACKS_ATTACK_H

#include <tallyra/ITYDataCollector.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/// What the attacks of a clumsy or hostile host share. Each attack is a function that runs in a
/// process of its own and returns its exit code. The process is its own platform log.

using Collector = std::unique_ptr<ITYDataCollector>;

/// A lost wake-up may cost the analyzer 20 s, and the sender again.
constexpr std::chrono::seconds kPatience{60};

Collector MakeCollector();

/// Sets content, reports START and `events` further events.
void Play(ITYDataCollector& collector, int events = 20, const std::string& url = "film.mp4");

/// Makes a collector, and waits until its sender runs.
Collector CollectorThatCollects();

/// @return whether a log line with that text came within kPatience
bool AwaitLog(const std::string& text, std::size_t count = 1);
/// @return how many log lines of that priority there were
std::size_t CountLog(int priority);

/// Runs for each log line, on the thread that writes it. Set it before the first collector.
extern std::function<void(const std::string& text)> g_OnLog;

/// Deletes the collector.
/// @return whether that took at most four seconds
bool DeletesInTime(Collector collector);

/// @return `ok`, after saying on standard error what did not hold
bool Holds(bool ok, const char* what);

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
