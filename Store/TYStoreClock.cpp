// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStoreClock.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <utility>

// Problem: records are dropped at a certain age, and the wall clock cannot tell an age. Devices
// start in 1970 until the network gives them the time, operators set clocks to a wrong month, and
// time servers correct them. A clock that is ahead for a minute would make every record too old.
//
// Idea: measure ages with a clock that only counts while the machine runs. Within a boot that is
// CLOCK_BOOTTIME, which nobody can set. To carry it across a restart, the store saves the running
// time together with the identity of the boot and its CLOCK_BOOTTIME. When the store is opened
// again, either the boot is still the same, and what has passed since then is known exactly; or it
// is another one, and the machine has run at least as long as that boot lasts. The time in between,
// from the save to the shutdown, is lost, and so is the time that the machine was off. Both make
// records look younger than they are, so that they are kept longer, never shorter.
//
// If a boot is unknown, nothing is added: that of a new store, that of records that were stored
// before the store had this clock, or that of a machine that does not tell it.
//
// Always true:
// - The clock never decreases, so that the runs of a store are in its order. A crash loses what was
//   not saved: then the clock continues from the last run.
// - The wall clock has no influence on it. A step of the wall clock is only noticed.

namespace {

constexpr std::int64_t kNsPerSecond = 1'000'000'000;
// An adjusted clock may be fast or slow by a small part of the time between two readings.
constexpr std::int64_t kSmallestStep = 2 * kNsPerSecond;

std::int64_t ReadClock(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return std::int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

std::string ReadBootId() {
    std::string id;
    std::getline(std::ifstream("/proc/sys/kernel/random/boot_id"), id);
    return id;
}

bool IsSameBoot(const TYTimes& before, const TYTimes& now) {
    return !now.boot.empty() && before.boot == now.boot;
}

/// @return by how much the wall clock was set between two readings of one boot
std::int64_t StepBetween(const TYTimes& before, const TYTimes& now) {
    const std::int64_t step = now.wall - before.wall - (now.boottime - before.boottime);
    return std::abs(step) > kSmallestStep ? step : 0;
}

std::int64_t Resume(const TYMoment& saved, const TYTimes& now) {
    if (saved.times.boot.empty() || now.boot.empty()) {
        return saved.clock;
    }
    const std::int64_t passed =
        now.boottime - (IsSameBoot(saved.times, now) ? saved.times.boottime : 0);
    return saved.clock + std::max<std::int64_t>(passed, 0);
}

}  // namespace

TYTimes SystemTimes() {
    // Never destroyed: a store that outlives main may still read the time.
    static const std::string& s_boot = *new std::string(ReadBootId());
    return {s_boot, ReadClock(CLOCK_BOOTTIME), ReadClock(CLOCK_REALTIME)};
}

CTYStoreClock::CTYStoreClock(TYReadTimes readTimes, const TYMoment& saved, std::int64_t atLeast)
    : m_ReadTimes(std::move(readTimes)) {
    m_Last.times = m_ReadTimes();
    m_Last.clock = std::max(Resume(saved, m_Last.times), atLeast);
    m_nStep = IsSameBoot(saved.times, m_Last.times) ? StepBetween(saved.times, m_Last.times) : 0;
}

const TYMoment& CTYStoreClock::Read() {
    TYTimes now = m_ReadTimes();
    const std::int64_t passed = now.boottime - m_Last.times.boottime;
    m_nStep += StepBetween(m_Last.times, now);
    m_Last.clock += std::max<std::int64_t>(passed, 0);
    m_Last.times = std::move(now);
    return m_Last;
}
