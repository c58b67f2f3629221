// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPLAYBACKLOG_H
#define TALLYRA_TYPLAYBACKLOG_H

#include "TYMediaData.h"
#include "TYTimeline.h"

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The order of a device's records.
struct TYRecordKey {
    std::int64_t source = 0;  ///< row of the store that the record comes from
    std::int64_t id = 0;      ///< of the entry there

    // clang-tidy 14 takes the zero that orderings are compared with for a pointer.
    auto operator<=>(const TYRecordKey&) const = default;  // NOLINT(modernize-use-nullptr)
};

/// The records of a playback that its figures are computed from, and which of them tell what else
/// is known about it. See TYPlaybackLog.cpp.
///
/// Threads: one.
class CTYPlaybackLog {
  public:
    static constexpr std::size_t kMostRecords = 20'000;

    /// Keys of records with a meaning; nothing if there is none yet.
    struct Marks {
        std::optional<TYRecordKey> first;
        std::optional<TYRecordKey> last;
        std::optional<TYRecordKey> firstStart;  ///< tells when the playback began
        std::optional<TYRecordKey> lastStart;   ///< tells the content

        bool operator==(const Marks&) const = default;
    };

    CTYPlaybackLog() = default;
    /// @param packed  what Pack returned
    /// @throws std::runtime_error  for any other bytes
    explicit CTYPlaybackLog(std::string_view packed);

    /// Adds a record, which may come before others.
    void Add(const TYRecordKey& key, const TYMediaData& record);

    const Marks& GetMarks() const { return m_Marks; }

    /// @return the first records in the order of their keys, up to STOP, with ids from 1 on
    std::vector<TYTimelineRecord> Records() const;
    /// @return whether records are left out because there are more than kMostRecords
    bool IsCut() const;

    std::string Pack() const;

  private:
    struct Entry {
        TYRecordKey key;
        TYTimelineRecord record;
    };

    void Mark(const TYRecordKey& key, bool isStart);
    void Insert(const Entry& entry);

    Marks m_Marks;
    std::vector<Entry> m_Entries;  ///< in the order of their keys
};

#endif  // TALLYRA_TYPLAYBACKLOG_H
