// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStallWatch.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <variant>

namespace {

// Collects the samples that follow, up to an event that itself explains a standing position.
struct Following {
    const TYGstEvent* pFirst = nullptr;
    const TYGstEvent* pSecond = nullptr;
};

bool Explains(const TYGstEvent::What& what) {
    return std::holds_alternative<TYStateChange>(what) || std::holds_alternative<TYSeek>(what) ||
           std::holds_alternative<TYEndOfStream>(what) ||
           std::holds_alternative<TYGstError>(what) ||
           std::holds_alternative<TYStreamStart>(what) || std::holds_alternative<TYClosed>(what);
}

Following FindSamples(const CTYDelayLine& line) {
    Following following;
    for (const TYGstEvent& event : line.Ahead()) {
        if (Explains(event.what)) {
            return following;
        }
        const auto* pSample = std::get_if<TYSample>(&event.what);
        if (pSample == nullptr || pSample->position == kGstUnknown) {
            continue;
        }
        if (following.pFirst != nullptr) {
            following.pSecond = &event;
            return following;
        }
        following.pFirst = &event;
    }
    return following;
}

int PositionOf(const TYGstEvent* pEvent) {
    return std::get<TYSample>(pEvent->what).position;
}

double SpeedOf(double rate) {
    return std::max(std::abs(rate), 0.01);
}

// How long the picture takes for this way.
std::int64_t TimeFor(int milliseconds, double rate) {
    return static_cast<std::int64_t>(std::abs(milliseconds) * 1000 / SpeedOf(rate));
}

// A position that moves less than this between two looks stands still. In slow motion, it moves
// little anyway.
bool IsStanding(int moved, double rate) {
    constexpr double kStandingMs = 20;
    return std::abs(moved) < kStandingMs * std::min(SpeedOf(rate), 1.0);
}

}  // namespace

std::optional<std::int64_t> CTYStallWatch::FindStop(const CTYDelayLine& line, std::int64_t time,
                                                    const TYSample& sample, double rate) {
    const Following following = FindSamples(line);
    if (following.pSecond == nullptr) {
        return std::nullopt;
    }
    const int last = PositionOf(following.pFirst);
    if (!IsStanding(PositionOf(following.pSecond) - last, rate)) {
        return std::nullopt;
    }
    return std::min(time + TimeFor(last - sample.position, rate), following.pFirst->time);
}

// A picture that has jumped began to move at an unknown time between the two looks: the middle is
// at most half their distance wrong.
std::optional<std::int64_t> CTYStallWatch::FindMove(const CTYDelayLine& line, std::int64_t time,
                                                    const TYSample& sample, double rate) {
    const Following following = FindSamples(line);
    if (following.pFirst == nullptr) {
        return std::nullopt;
    }
    const int moved = PositionOf(following.pFirst) - sample.position;
    if (IsStanding(moved, rate)) {
        return std::nullopt;
    }
    const std::int64_t next = following.pFirst->time;
    const std::int64_t took = TimeFor(moved, rate);
    return took > next - time ? time + (next - time) / 2 : next - took;
}
