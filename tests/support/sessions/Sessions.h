// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_SESSIONS_SESSIONS_H
#define TALLYRA_TESTS_SUPPORT_SESSIONS_SESSIONS_H

#include "TYMediaData.h"

#include <cstdint>
#include <random>
#include <string>
#include <vector>

/// A source of numbers that is the same for a seed with every standard library.
class CDice {
  public:
    explicit CDice(std::uint64_t seed) : m_Engine(seed) {}

    /// @return a number from `least` to `most`
    int Between(int least, int most) {
        return least + static_cast<int>(m_Engine() % static_cast<std::uint64_t>(most - least + 1));
    }
    bool Percent(int chance) { return Between(1, 100) <= chance; }
    /// @return a time around `typical`: half of it to twice it, and sometimes ten times as long
    int Around(int typical) {
        return Between(typical / 2, typical * 2) * (Percent(3) ? Between(2, 10) : 1);
    }
    template <class Values>
    const auto& Pick(const Values& values) {
        return values[m_Engine() % std::size(values)];
    }

  private:
    std::mt19937_64 m_Engine;
};

/// The records of one playback, as the library delivers them.
struct Session {
    std::string url;
    std::vector<TYMediaData> records;
};

/// Makes playbacks of several applications, versions, networks and contents, as viewers cause them:
/// start-up, stalls, seeks, pauses, renditions, errors, and some that are lost. About 40 records
/// each.
///
/// @param number  tells the playbacks of one seed apart
/// @param begin   of the playback, milliseconds since the epoch
Session MakeSession(CDice& dice, int number, std::int64_t begin);

#endif  // TALLYRA_TESTS_SUPPORT_SESSIONS_SESSIONS_H
