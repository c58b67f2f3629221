// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_WORLD_H
#define TALLYRA_TESTS_FUZZ_MODEL_WORLD_H

#include "model/Record.h"

#include <cstdint>
#include <string>

namespace model {

/// All around the library that decides about records. Whoever changes it changes the doubles with
/// it.
struct World {
    std::int64_t realNs = 0;  // of the wall clock
    bool clockFails = false;

    int keyResult = 0;
    int keyValue = 1;

    bool serviceIsThere = false;
    bool policyAllows = true;

    std::string version;  // of the application's package

    bool gateway = true;
    int gatewayResult = 0;
    int connectionType = 0;
    int connectionTypeResult = 0;

    int wifiResult = 0;
    int apResult = 0;
    int rssiResult = 0;
    int rssi = 0;

    // The player's thread.
    unsigned thread = 0;

    /// @return the wall clock's reading, zero when there is none
    Time Now() const {
        constexpr std::int64_t kNsPerSec = 1'000'000'000;
        return clockFails ? Time{}
                          : Time{static_cast<std::int32_t>(realNs / kNsPerSec),
                                 static_cast<std::int32_t>(realNs % kNsPerSec)};
    }
    bool IsKeyOn() const { return keyResult == 0 && keyValue == 1; }
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_WORLD_H
