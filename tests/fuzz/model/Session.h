// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FUZZ_MODEL_SESSION_H
#define TALLYRA_TESTS_FUZZ_MODEL_SESSION_H

#include "Record.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace model {

/// The state around the library that decides about records. The rig sets the doubles to it.
struct World {
    std::int64_t realNs = 0;  // of the wall clock
    bool clockFails = false;
    int keyResult = 0;
    int keyValue = 1;
    bool serviceIsThere = false;
    bool policyAllows = true;
    std::string version;  // of the application's package
    bool gateway = true;
    int gatewayResult = 0;
    int connectionType = 0;
    int connectionTypeResult = 0;
    int wifiResult = 0;
    int apResult = 0;
    int rssiResult = 0;
    int rssi = 0;
    unsigned thread = 0;  // number of the player's thread

    /// @return the wall clock's time; zero when the clock fails
    Time Now() const;
    bool IsKeyOn() const { return keyResult == 0 && keyValue == 1; }
};

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
    explicit CPlayback(const World& world) : m_World(world) {
        SetConnected(world.gatewayResult == 0 && world.gateway);
    }

    /// Handles the platform's notification of a changed network state.
    void NetworkChanged(int result, const std::string& state);

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

    bool IsUnderWay() const { return !m_Now.id.empty(); }
    void Forget() { m_Now = {}; }

  private:
    /// What ends with a playback.
    struct State {
        std::string id;
        std::int32_t reference = -1;
        std::int32_t last = -1;
        bool paused = false;
        bool reanchors = false;
        bool renders = false;
    };

    Event Start(std::int32_t param2);
    Event During(int event, std::int32_t param1, std::int32_t param2);
    std::optional<Event> ReportPosition(std::int32_t position, std::int32_t param2);
    void SetConnected(bool connected);
    /// @return the signal of the access point that was connected at the first call
    int SignalStrength();

    const World& m_World;
    int m_nNetwork = -1;  // -1 unknown, 0 none, 1 Ethernet, 2 Wi-Fi
    bool m_bWifiOpen = false;
    bool m_bApOpen = false;
    Record m_Fields;
    std::optional<std::string> m_Url;
    State m_Now;
    std::uint32_t m_nStartSecond = 0;
    std::map<int, std::uint32_t> m_LastFree;
};

/// The way of records: analysed, queued until the service is found, sent. The analyzer and the
/// sender run once; when they are started again after their end, they only handle what is queued.
class CDelivery {
  public:
    /// Takes a record from the collector.
    void Push(const Record& record, Time now);

    void StartAnalyzer(Time now);
    void StartSender();
    /// When they end, both have handled what was queued.
    void EndAnalyzer() { m_bAnalyzes = false; }
    void EndSender();
    /// Drops the records queued for the sender.
    void DropWaiting() { m_Waiting.clear(); }
    std::size_t Waiting() const { return m_Waiting.size(); }

    /// @return whether some records are sent for certain only after another start
    bool HasLeftovers() const { return !m_NotAnalysed.empty() || !m_MaybeSent.empty(); }

    /// @return the records sent, in order
    const std::vector<Record>& Sent() const { return m_Sent; }
    /// @return the records that may have been sent after those: when both threads are ending, the
    ///         sender may get some, all or none of the analyzer's last records
    const std::deque<Record>& MaybeSent() const { return m_MaybeSent; }

  private:
    enum class Sender { NOT_STARTED, RUNNING, ENDED };

    void Analyse(const Record& record, Time now);
    void PassOn(const Record& record);
    // The record that the analyzer derives from this one, if any. `now` is the time of that.
    std::optional<Record> Derive(const Record& record, Time now);
    std::optional<Record> Measure(const Record& record, Time now);

    // The position that play time counts from; 0 for a stream that begins inside a playback.
    std::optional<std::int32_t> m_Anchor = 0;
    std::optional<Time> m_StallBegan;
    Time m_Started;
    bool m_bAnalyzes = true;
    Sender m_Sender = Sender::NOT_STARTED;
    std::deque<Record> m_NotAnalysed;
    std::deque<Record> m_Waiting;
    std::deque<Record> m_MaybeSent;
    std::vector<Record> m_Sent;
};

/// A collector from its construction: the player's calls, the platform and the service.
class CSession {
  public:
    /// @param appId  is empty when the player passed null
    CSession(const World& world, const std::optional<std::string>& appId, int playerID);

    // The player's calls.
    void SendEvent(int event, std::int32_t param1, std::int32_t param2);
    void SendError(int error) { Collect(m_Playback.ReportError(error)); }
    bool Execute(int code, std::int32_t value, const std::string& text);
    void SetServiceVersion(const std::string& version) { m_strVersion = Cut(version, 12); }
    CPlayback& Playback() { return m_Playback; }

    /// Handles the passing of time; the world's clock is already moved.
    void Pass(std::int64_t milliseconds);
    /// Handles the notification of a changed key.
    void KeyChanged();

    const CDelivery& Delivery() const { return m_Delivery; }

  private:
    enum class Link { AWAITED, FOUND, GIVEN_UP };

    void Collect(const std::optional<Event>& event);
    void Deliver(Record record);
    void LookForService();
    void GiveUp();

    const World& m_World;
    CPlayback m_Playback;
    CDelivery m_Delivery;
    std::string m_strApp;
    std::string m_strVersion;
    int m_nPlayerID;
    bool m_bOn;
    Link m_Link = Link::AWAITED;
    std::int64_t m_nUntilLook;
};

}  // namespace model

#endif  // TALLYRA_TESTS_FUZZ_MODEL_SESSION_H
