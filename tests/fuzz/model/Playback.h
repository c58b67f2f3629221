// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_PLAYBACK_H
#define TALLYRA_TESTS_FUZZ_MODEL_PLAYBACK_H

#include "World.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace model {

/// What a player reports about its content.
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

/// The code and the parameters of a record.
struct Event {
    int code = 0;
    std::int32_t param1 = 0;
    std::int32_t param2 = 0;
};

/// The rules of a playback: which calls of the player make a record, at most one each.
class CPlayback {
  public:
    CPlayback(const World& world, CNetwork& network) : m_World(world), m_Network(network) {}

    /// @return whether the content may be set: a playback's URL must not change
    bool MaySet(const Content& content) const;
    void Set(const Content& content);
    void SetDuration(std::int32_t duration) { m_Fields.duration = duration; }
    void SetDrmType(int drmType) { m_Fields.drmType = drmType & 0xFF; }
    void SetContentType(int contentType) { m_Fields.contentType = contentType & 0xFF; }
    int DrmType() const { return static_cast<std::int8_t>(m_Fields.drmType); }
    int ContentType() const { return static_cast<std::int8_t>(m_Fields.contentType); }

    /// @return whether a START may be reported: it needs a URL
    bool MayStart() const { return m_Url && !m_Url->empty(); }
    /// Does not end a playback at a STOP: Forget does, after its record is made.
    std::optional<Event> Report(int event, std::int32_t param1, std::int32_t param2);
    std::optional<Event> ReportError(int error) const;
    /// @return whether a free record is accepted now
    bool TakesFree(int code);

    /// @return a record with the fields of content, playback and network
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
