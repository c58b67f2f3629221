// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYRENDITION_H
#define TALLYRA_GST_TYRENDITION_H

#include "TYGstEvent.h"

#include <cstdint>
#include <deque>
#include <map>
#include <optional>

/// Finds out which rendition is on the screen.
///
/// An adaptive demuxer announces a variant when it begins to load it: up to the length of the
/// buffer before it is seen. The picture changes when new caps reach the video sink. So the
/// announced bit rates wait in a queue, and each new size of the picture takes one. A size whose
/// bit rate is known from before takes that one. Variants of the same size change no caps: after
/// kSameSizeAfter, an announced bit rate counts as seen. No demuxer announces the first variant;
/// its bit rate is known only when the player comes back to it.
///
/// Other content has its bit rate in the tags of its tracks, which arrive one by one: it is unknown
/// until that of the picture is there, and that of the sound or kSoundWithin.
///
/// Threads: one.
class CTYRendition {
  public:
    static constexpr std::int64_t kSameSizeAfter = 15'000'000;

    /// How long the bit rate of the picture waits for that of the sound.
    static constexpr std::int64_t kSoundWithin = 1'000'000;

    struct Value {
        int kbps;
        int size;  ///< as of TYFrameSize, 0 if unknown

        bool operator==(const Value&) const = default;
    };

    /// Forgets all, as at the start of a content.
    void Reset() { *this = CTYRendition(); }

    void SetVariant(std::int64_t time, int kbps);
    void SetTags(const TYTags& tags);
    void SetPicture(const TYPictureSize& size);
    /// The next content follows without a gap. Its picture may have the size of this one, and then
    /// no caps tell that.
    void Continue();
    /// The buffer was emptied: the next picture is of the variant that is being loaded.
    void Flush();

    /// @return the rendition if it is another than the one returned last, and known at all
    std::optional<Value> TakeChange(std::int64_t now);

  private:
    struct Announced {
        std::int64_t time;
        int kbps;
    };

    int TakeAnnounced(int size);
    void TakeTags(std::int64_t now);

    std::deque<Announced> m_Announced;
    std::map<int, int> m_KnownRates;  ///< by size
    Value m_Current{0, 0};
    Value m_Returned{0, 0};
    bool m_bAdaptive = false;
    int m_nVideoTag = 0;
    int m_nAudioTag = 0;
    std::int64_t m_nVideoTagTime = 0;
    bool m_bTagsTaken = false;
};

#endif  // TALLYRA_GST_TYRENDITION_H
