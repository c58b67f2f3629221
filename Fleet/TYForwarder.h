// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYFORWARDER_H
#define TALLYRA_TYFORWARDER_H

#include "ITYFleetLink.h"
#include "TYBackoff.h"
#include "TYForwardMessage.h"
#include "TYForwardingState.h"
#include "TYSpool.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

struct TYForwarderOptions {
    std::string device;
    bool keepQueries = false;      ///< send URLs as they are stored
    std::int64_t bytesPerDay = 0;  ///< 0: no limit
    bool follow = false;           ///< stay connected, and send what is added
};

/// How a connection ended.
enum class TYForwardEnd {
    DRAINED,   ///< the servers have everything
    LIMITED,   ///< the limit of bytes for this day is reached
    FAILED,    ///< the servers have stopped to take messages
    WITHHELD,  ///< the default policy became 0
    MOVED,     ///< another store is at the path of this one
    REPLACED,  ///< an older copy of the store is at its path: its ids were given before
    STOPPED,   ///< the caller asked for it
};

/// Sends the entries of a device's store over one connection, see TYForwarder.cpp.
///
/// Throws CTYDatabaseError and CTYLinkLost; what was done until then is noted in the store.
///
/// Threads: one, that of the database.
class CTYForwarder {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;
    using IsStopped = std::function<bool()>;

    static constexpr std::size_t kWindow = 4;                 ///< batches in flight
    static constexpr std::chrono::seconds kAckTime{5};        ///< to wait for an acknowledgement
    static constexpr std::chrono::seconds kLongestPause{60};  ///< between two attempts
    static constexpr std::chrono::seconds kPatience{60};      ///< without progress
    static constexpr std::chrono::seconds kAskPeriod{60};     ///< while batches are not stored
    static constexpr std::chrono::seconds kStoredTime{10};    ///< to wait until all is stored

    CTYForwarder(CTYDatabase& database, TYForwarderOptions options, ITYFleetLink& link,
                 IsStopped isStopped, Now now = Clock::now);

    /// Asks how far this device is stored, goes back to that, and sends what follows.
    TYForwardEnd Run();

    /// @return whether the servers took a batch, or one got stored
    bool HasProgressed() const { return m_bProgressed; }

  private:
    struct Flight {
        CTYSpool::Bounds bounds;
        std::vector<TYMessage> parts;
        std::set<std::size_t> missing;  ///< parts without acknowledgement
        std::uint64_t sequence = 0;     ///< highest of its acknowledgements
        Clock::time_point deadline;
    };

    TYForwardEnd Forward();
    void Ask();
    std::optional<TYForwardEnd> Step();
    bool FillWindow();
    std::vector<CTYSpool::Bounds> PlanWindow();
    bool Begin(const CTYSpool::Bounds& bounds);
    void Send(Flight& flight);
    void SendLate();
    void Receive(std::chrono::milliseconds timeout);
    void Note(const std::vector<TYMessage>& messages);
    void Acknowledged(const TYMessage& message);
    void Pause(const std::string& reason);
    void Resume();
    void Watermark(const TYMessage& message);
    bool IsToBelieve(std::int64_t stored);
    void GoBack(std::int64_t stored, const TYStreamState& stream);
    void NoteBytes();
    void NoteWithheld();
    std::optional<TYForwardEnd> Idle();
    void Progress();
    std::chrono::milliseconds UntilDeadline() const;
    bool IsLimited(const std::vector<TYMessage>& parts);

    CTYDatabase& m_Database;
    const TYForwarderOptions m_Options;
    ITYFleetLink& m_Link;
    const IsStopped m_IsStopped;
    const Now m_Now;
    CTYSpool m_Spool;
    CTYForwardingState m_State;
    CTYForwardMessage m_Codec;
    const std::string m_strInbox;
    std::map<std::int64_t, Flight> m_Flights;  ///< by the first id
    std::int64_t m_nPassed = 0;
    CTYSpool::Withheld m_Withheld;
    std::int64_t m_nBytes = 0;  ///< sent, and not noted yet
    CTYBackoff m_Backoff{std::chrono::seconds(1), kLongestPause};
    std::optional<std::int64_t> m_Lower;  ///< the last answer, if it was lower than before
    bool m_bAnswered = false;
    bool m_bLimited = false;
    bool m_bProgressed = false;
    bool m_bAskAgain = false;
    bool m_bReplaced = false;
    Clock::time_point m_PausedUntil;
    Clock::time_point m_LastProgress;
    Clock::time_point m_NextAsk;
    std::optional<Clock::time_point> m_DrainedSince;
};

#endif  // TALLYRA_TYFORWARDER_H
