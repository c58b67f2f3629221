// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FLEET_FLEETFIXTURE_H
#define TALLYRA_TESTS_FLEET_FLEETFIXTURE_H

#include "StoreFixture.h"
#include "TYForwardMessage.h"

inline constexpr const char* kEpoch = "0a1b2c3d-0000-4000-8000-000000000001";
inline constexpr const char* kOtherEpoch = "ffffffff-0000-4000-8000-000000000002";

/// @return a batch of the device "tv1": records with ids from `first`, whose param1 is the id
inline TYForwardedBatch ForwardedBatch(std::int64_t after, std::int64_t first, int count) {
    TYForwardedBatch batch;
    batch.device = "tv1";
    batch.epoch = kEpoch;
    batch.after = after;
    batch.first = first;
    for (int i = 0; i < count; ++i) {
        batch.records.push_back(
            MakeRecord(TY_EVENT_PLAYBACK_TIME, "p1", static_cast<std::int32_t>(first) + i));
        batch.urls.emplace_back("https://media.example/film.mpd");
        batch.arrivals.push_back(1000 + first + i / 2);
    }
    return batch;
}

#endif  // TALLYRA_TESTS_FLEET_FLEETFIXTURE_H
