// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_PLAYBACK_H
#define TALLYRA_TESTS_FUZZ_MODEL_PLAYBACK_H

#include "model/Network.h"
#include "model/World.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace model {

/// What a player says about its content.
struct Content {
    std::string url;
    std::int32_t startTime = 0;
    std::int32_t duration = 0;
    int drmType = -1;
    int contentType = -1;
    std::string channelID;
    std::string title;
    std::string genre;
    std::string customInfo;
};

/// A record to be made: a code and its two numbers.
struct Event {
    int code = 0;
    std::int32_t param1 = 0;
    std::int32_t param2 = 0;
};

/// What becomes of a player's calls while collection is on: each makes one record at the most.
class CPlayback {
  public:
    CPlayback(const World& world, CNetwork& network) : m_World(world), m_Network(network) {}

    /// @return whether the content may be set: its URL must stay the same during a playback
    bool MaySet(const Content& content) const;
    void Set(const Content& content);
    void SetDuration(std::int32_t duration) { m_Fields.duration = duration; }
    void SetDrmType(int drmType) { m_Fields.drmType = drmType & 0xFF; }
    void SetContentType(int contentType) { m_Fields.contentType = contentType & 0xFF; }
    int DrmType() const { return static_cast<std::int8_t>(m_Fields.drmType); }
    int ContentType() const { return static_cast<std::int8_t>(m_Fields.contentType); }

    /// @return whether a START may be reported: it takes a URL
    bool MayStart() const { return m_Url && !m_Url->empty(); }
    /// Ends no playback: Forget does, once the record of its STOP is made.
    std::optional<Event> Report(int event, std::int32_t param1, std::int32_t param2);
    std::optional<Event> ReportError(int error) const;
    /// @return whether a free record is taken now
    bool TakesFree(int code);

    /// @return a record of what is known of content, playback and network
    Record MakeRecord(const Event& event) const;

    bool IsUnderWay() const { return !m_strID.empty(); }
    void Forget();

  private:
    Event Start(std::int32_t param2);
    Event During(int event, std::int32_t param1, std::int32_t param2);
    std::optional<Event> ReportPosition(std::int32_t position, std::int32_t param2);

    const World& m_World;
    CNetwork& m_Network;
    Record m_Fields;
    std::optional<std::string> m_Url;
    std::string m_strID;
    std::int32_t m_nReference = -1;
    std::int32_t m_nLast = -1;
    bool m_bPaused = false;
    bool m_bReanchor = false;
    bool m_bRendering = false;
    std::uint32_t m_nStartSecond = 0;
    std::map<int, std::uint32_t> m_LastFree;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_PLAYBACK_H
