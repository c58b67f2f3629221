// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_HOST_PLAYER_H
#define TALLYRA_TESTS_HOST_PLAYER_H

#include <tallyra/ITYDataCollector.h>

#include <memory>
#include <string>

using Collector = std::unique_ptr<ITYDataCollector>;

/// An event whose meaning is left to the player.
constexpr auto kFreeEvent = static_cast<TY_EVENT_TYPE>(99);

inline Collector MakeCollector() {
    return Collector(GetTYDataCollectorInstance("org.example.host", TY_PLAYER_NATIVE));
}

/// Sets content, reports START and `events` further events.
inline void StartPlayback(ITYDataCollector& collector, int events = 20,
                          std::string url = "film.mp4") {
    CTYContentInfo content(&url, 0);
    content.SetTitle("Film");
    collector.SetContentInfo(&content);
    collector.SendMediaEvent(TY_EVENT_START, 0, 0);
    for (int i = 0; i < events; ++i) {
        collector.SendMediaEvent(kFreeEvent, i, 0);
    }
}

/// Plays a short playback, from START to STOP.
inline void Play(ITYDataCollector& collector) {
    StartPlayback(collector);
    collector.Execute(100, 1, "text");
    collector.SendMediaEvent(TY_EVENT_STOP, 0, 0);
}

#endif  // TALLYRA_TESTS_HOST_PLAYER_H
