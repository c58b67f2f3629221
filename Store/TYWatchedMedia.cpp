// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYWatchedMedia.h"

#include <utility>

// Problem: the library records only some positions: the first one after START, RESUME and
// SEEK_COMPLETE, one every three minutes, and the last one with PAUSE, SEEK, STOP and
// BUFFERING_START. The difference of two of them is media that was watched, or media that was
// skipped.
//
// Idea: a segment begins with a reported position. It grows to each later position that the
// player can have reached by playing. A position that it cannot have reached begins a new segment.
// A heartbeat tells that the position advanced by three minutes without a jump, whatever the clock
// says.
// PAUSE and SEEK end the segment. After them, the last position of other records is out of date
// until a position is reported again.

namespace {

// Players may play at up to twice the speed.
constexpr std::int64_t kLargestSpeed = 2;
constexpr std::int64_t kLongestHeartbeat = kHeartbeat + kPositionTolerance;

class CSegments {
  public:
    void Report(std::int64_t position, std::int64_t at) {
        if (!Extend(position, at)) {
            m_Segments.push_back({position, position});
            m_bOpen = true;
            m_nAt = at;
        }
    }

    void Beat(std::int64_t position, std::int64_t at) {
        if (!ExtendBy(kLongestHeartbeat, position, at)) {
            Report(position, at);
        }
    }

    /// @return whether the open segment now ends at the position
    bool Extend(std::int64_t position, std::int64_t at) {
        return ExtendBy((at - m_nAt) * kLargestSpeed + kPositionTolerance, position, at);
    }

    void Close(std::int64_t position, std::int64_t at) {
        Extend(position, at);
        m_bOpen = false;
    }

    std::vector<TYSegment> Take() { return std::move(m_Segments); }

  private:
    bool ExtendBy(std::int64_t atMost, std::int64_t position, std::int64_t at) {
        if (!m_bOpen || position < m_Segments.back().end ||
            position - m_Segments.back().end > atMost) {
            return false;
        }
        m_Segments.back().end = position;
        m_nAt = at;
        return true;
    }

    std::vector<TYSegment> m_Segments;
    bool m_bOpen = false;
    std::int64_t m_nAt = 0;  ///< when the end was reached
};

}  // namespace

// The play time after PAUSE, which is no heartbeat, repeats the position of the PAUSE.
std::vector<TYSegment> WatchedSegments(std::span<const TYTimelineRecord> records,
                                       std::span<const std::int64_t> offsets) {
    CSegments segments;
    for (std::size_t i = 0; i < offsets.size(); ++i) {
        const TYTimelineRecord& record = records[i];
        switch (record.event) {
            case TY_EVENT_PLAYBACK_TIME:
            case TY_ERROR_PLAYBACK_TIME_JUMP:
                segments.Report(record.param1, offsets[i]);
                break;
            case TY_EVENT_PLAYING_TIME:
                if (IsHeartbeat(record)) {
                    segments.Beat(record.param1, offsets[i]);
                }
                break;
            case TY_EVENT_BUFFERING_START:
                segments.Extend(record.param1, offsets[i]);
                break;
            case TY_EVENT_PAUSE:
            case TY_EVENT_SEEK:
            case TY_EVENT_STOP:
                segments.Close(record.param1, offsets[i]);
                break;
            default:
                break;
        }
    }
    return segments.Take();
}

std::int64_t LengthOf(std::span<const TYSegment> segments) {
    std::int64_t length = 0;
    for (const TYSegment& segment : segments) {
        length += segment.end - segment.begin;
    }
    return length;
}
