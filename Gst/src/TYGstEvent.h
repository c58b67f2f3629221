// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYGSTEVENT_H
#define TALLYRA_GST_TYGSTEVENT_H

#include <cstdint>
#include <string>
#include <variant>

// What the observer learns of a pipeline, in plain values. Times are microseconds of the monotonic
// clock, positions and durations milliseconds.

/// A value that the pipeline did not tell.
inline constexpr int kGstUnknown = -1;

/// The values of GstState.
enum class TYPipelineState { VOID_PENDING = 0, NULL_STATE = 1, READY = 2, PAUSED = 3, PLAYING = 4 };

/// A source for this URI was made.
struct TYSourceReady {
    std::string uri;
};

/// The pipeline itself changed its state.
struct TYStateChange {
    TYPipelineState before;
    TYPipelineState now;
    TYPipelineState pending;
};

/// BUFFERING fell below 100, or is back at 100. Only changes are passed on.
struct TYBuffering {
    bool isLow;
};

/// ASYNC_DONE of the pipeline.
struct TYAsyncDone {};

/// A seek event at a sink's pad.
struct TYSeek {
    enum class Target { POSITION, END, SAME_PLACE };

    std::uint32_t seqnum;
    Target target;
    int position;  ///< with POSITION
    bool isFlushing;
    double rate;
};

/// A SEGMENT event at a sink's pad.
struct TYSegment {};

/// STREAM_START of the pipeline.
struct TYStreamStart {};

/// The playbin asks for the next URI.
struct TYAboutToFinish {};

struct TYEndOfStream {};

struct TYGstError {
    std::string domain;
    int code;
    std::string message;
    int httpStatus;  ///< 0 if the error has none
};

/// Tags of one message; an empty text or a 0 is not among them.
struct TYTags {
    std::string title;
    std::string genre;
    int kbps;
    bool isVideo;
};

/// The application described content. TallyraGstContent has the meaning of each member.
struct TYDescription {
    std::string uri;
    std::string title;
    std::string channel;
    std::string genre;
    std::string customInfo;
    int contentType = kGstUnknown;
    int drmType = kGstUnknown;
    int duration = kGstUnknown;
};

/// A protection event with this system's UUID.
struct TYProtection {
    std::string systemId;
};

/// An adaptive demuxer has loaded its manifest, or begins to load a variant.
struct TYVariant {
    int kbps;  ///< 0 with the manifest
};

/// Caps at a video sink's pad.
struct TYPictureSize {
    int width;
    int height;
};

/// The application has changed the rate from where the picture is, without a seek.
struct TYRate {
    double rate;
};

/// What a look at the pipeline found.
struct TYSample {
    int position = kGstUnknown;
    int duration = kGstUnknown;
    bool isAsked = false;     ///< whether the duration and the next two were asked for
    bool isLive = false;      ///< the pipeline is fed live
    bool isAdaptive = false;  ///< the source is an adaptive stream
    bool isStopped = false;   ///< the application has asked for READY or NULL
    int framesDropped = 0;
    int framesRendered = 0;
};

/// The stall watch found, from samples, that the picture stopped or moved again at this time.
struct TYStandstill {
    bool begins;
};

/// The observer was detached or the pipeline disposed. Nothing follows.
struct TYClosed {};

/// An event with the time at which it happened.
struct TYGstEvent {
    using What = std::variant<TYSourceReady, TYStateChange, TYBuffering, TYAsyncDone, TYSeek,
                              TYSegment, TYStreamStart, TYAboutToFinish, TYEndOfStream, TYGstError,
                              TYTags, TYDescription, TYProtection, TYVariant, TYPictureSize, TYRate,
                              TYSample, TYStandstill, TYClosed>;

    std::int64_t time;
    What what;
};

#endif  // TALLYRA_GST_TYGSTEVENT_H
