// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_GST_PLAYER_TRUTH_H
#define TALLYRA_TESTS_GST_PLAYER_TRUTH_H

#include <gst/gst.h>

#include <cstdint>
#include <mutex>
#include <string>

/// What a viewer of the player sees, as JSON lines on standard output: each has "at", in seconds
/// since the epoch, and "what". It is taken from the sinks' frames alone, so that it owes nothing
/// to the messages and events that an observer lives on.
///
/// Threads: Say may be called from any thread, all others from the sink's streaming thread or, once
/// that has stopped, from the main thread.
class CTruth {
  public:
    /// Prints a line. @param more  further members, as `,"name":value`
    static void Say(const char* pWhat, const std::string& more = "") {
        SayAt(g_get_real_time(), pWhat, more);
    }

    /// Takes a rendered frame: prints the first of each stream, the size when it changes, and gaps
    /// between frames above 100 ms with their end and the media positions around them.
    void Picture(GstBuffer* pBuffer, GstPad* pPad);

    /// Prints the last frame, and forgets it.
    void Last();

  private:
    static constexpr std::int64_t kGapUs = 100'000;

    static void SayAt(std::int64_t atUs, const char* pWhat, const std::string& more);
    void NoteStream(GstPad* pPad);
    void NoteSize(GstPad* pPad);

    std::int64_t m_nLastUs = 0;  ///< 0: no frame so far
    std::int64_t m_nPositionMs = 0;
    std::int64_t m_nFrames = 0;
    std::string m_strStream;
    int m_nWidth = 0;
    int m_nHeight = 0;
};

#endif  // TALLYRA_TESTS_GST_PLAYER_TRUTH_H
