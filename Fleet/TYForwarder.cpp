// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYForwarder.h"

#include "TYLog.h"
#include "TYLosses.h"
#include "TYPublishAnswer.h"
#include "TYSubjects.h"
#include "TYWallClock.h"
#include "TYWatermarkMessage.h"

#include <algorithm>
#include <exception>
#include <utility>

// Problem: every entry has to arrive once, in the order of ids, although the servers forget what
// they have acknowledged, connections break in the middle, and this process may be killed at any
// time. A device must not overload servers that are in trouble.
//
// Idea: the servers' acknowledgement is a hint, and the watermark of the database is the truth. A
// new connection begins with a question: how far is this device stored, and how far has the stream
// been processed? Batches that the stream has processed or lost, and that are not stored, go again.
// The bounds of a batch are committed before it is first sent. So a repetition is the same message,
// which the servers and the database recognise.
//
// kWindow batches are in flight at a time. One that is not acknowledged in time is sent again.
// After a refusal - a full stream, no stream, no quorum - nothing is sent for a pause that doubles
// with each failure, up to kLongestPause. Pauses are random, so that a million devices do not come
// back at the same moment.
//
// Always true:
// - The bounds of each batch in flight are committed.
// - Nothing is noted as stored but what the collector said.

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

using std::chrono::milliseconds;

// How often it looks for a request to stop, and for new entries.
constexpr milliseconds kLook{500};
constexpr std::chrono::seconds kAnswerTime{2};
constexpr int kAsks = 3;

std::int64_t Today() {
    constexpr std::int64_t kDay = 86'400'000'000'000;
    return WallClockNow() / kDay;
}

}  // namespace

CTYForwarder::CTYForwarder(CTYDatabase& database, TYForwarderOptions options, ITYFleetLink& link,
                           IsStopped isStopped, Now now)
    : m_Database(database),
      m_Options(std::move(options)),
      m_Link(link),
      m_IsStopped(std::move(isStopped)),
      m_Now(std::move(now)),
      m_Spool(database, m_Options.device, m_Options.keepQueries),
      m_State(database),
      m_strInbox(link.Inbox()),
      m_LastProgress(m_Now()) {
    m_Link.Subscribe(m_strInbox + ".>");
    m_Link.Subscribe(TYSubjects::Stored(m_Options.device));
}

TYForwardEnd CTYForwarder::Run() {
    try {
        const TYForwardEnd end = Forward();
        NoteBytes();
        return end;
    } catch (...) {
        NoteBytes();
        throw;
    }
}

TYForwardEnd CTYForwarder::Forward() {
    // Without an answer, the collectors are down. The servers may take messages all the same.
    for (int i = 0; i < kAsks && !m_bAnswered && !m_IsStopped(); ++i) {
        Ask();
        for (const auto until = m_Now() + kAnswerTime;
             m_Now() < until && !m_bAnswered && !m_bAskAgain;) {
            Receive(std::chrono::ceil<milliseconds>(until - m_Now()));
        }
    }
    m_LastProgress = m_Now();
    for (;;) {
        if (m_IsStopped()) {
            return TYForwardEnd::STOPPED;
        }
        if (const std::optional<TYForwardEnd> end = Step()) {
            return *end;
        }
    }
}

/// Counts what was sent without any answer since.
void CTYForwarder::NoteBytes() {
    try {
        m_State.AddBytes(Today(), std::exchange(m_nBytes, 0));
    } catch (const CTYDatabaseError& error) {
        TY_LOG_ERROR("cannot count the bytes that were sent: %s", error.what());
    }
}

void CTYForwarder::Ask() {
    m_NextAsk = m_Now() + kAskPeriod;
    m_bAskAgain = false;
    m_Link.Publish({.subject = TYSubjects::Ask(m_Options.device), .body = m_Spool.Epoch()});
}

std::optional<TYForwardEnd> CTYForwarder::Step() {
    if (m_Database.HasMoved()) {
        return TYForwardEnd::MOVED;
    }
    if (m_Spool.DefaultPolicy() == 0) {
        return TYForwardEnd::WITHHELD;
    }
    if (m_bReplaced) {
        return TYForwardEnd::REPLACED;
    }
    if (m_Now() >= m_NextAsk && (m_bAskAgain || m_State.IsUnstored())) {
        Ask();
    }
    SendLate();
    const bool isIdle = !FillWindow() && m_Flights.empty();
    if (isIdle) {
        if (const std::optional<TYForwardEnd> end = Idle()) {
            return end;
        }
    } else {
        m_DrainedSince.reset();
    }
    if (!isIdle && m_Now() - m_LastProgress > kPatience) {
        return TYForwardEnd::FAILED;
    }
    Receive(std::min(kLook, UntilDeadline()));
    return std::nullopt;
}

/// Nothing is to be sent and nothing in flight.
std::optional<TYForwardEnd> CTYForwarder::Idle() {
    m_LastProgress = m_Now();
    if (m_bLimited) {
        return TYForwardEnd::LIMITED;
    }
    if (m_Options.follow) {
        return std::nullopt;
    }
    m_DrainedSince = m_DrainedSince.value_or(m_Now());
    const bool isDone = !m_State.IsUnstored() || m_Now() - *m_DrainedSince > kStoredTime;
    return isDone ? std::optional(TYForwardEnd::DRAINED) : std::nullopt;
}

/// Puts batches in flight until the window is full.
/// @return whether there are more to send
bool CTYForwarder::FillWindow() {
    if (m_Flights.size() >= kWindow) {
        return true;
    }
    bool isMore = false;
    for (const CTYSpool::Bounds& bounds : PlanWindow()) {
        isMore = true;
        if (m_Now() < m_PausedUntil || m_Flights.size() >= kWindow || !Begin(bounds)) {
            break;
        }
    }
    return isMore && !m_bLimited;
}

/// @return batches to send, whose bounds are committed
std::vector<CTYSpool::Bounds> CTYForwarder::PlanWindow() {
    std::vector<CTYSpool::Bounds> planned = m_State.Unsent(static_cast<int>(2 * kWindow));
    std::erase_if(planned, [this](const CTYSpool::Bounds& bounds) {
        return m_Flights.contains(bounds.first);
    });
    if (m_Flights.size() + planned.size() >= kWindow) {
        return planned;
    }
    std::vector<CTYSpool::Bounds> added;
    std::int64_t after = m_State.LastBatch();
    while (m_Flights.size() + planned.size() < kWindow) {
        m_nPassed = std::max(m_nPassed, after);
        const auto bounds = m_Spool.Find(after, m_nPassed, m_Withheld);
        if (!bounds) {
            break;
        }
        added.push_back(*bounds);
        planned.push_back(*bounds);
        after = m_nPassed = bounds->last;
    }
    if (!added.empty()) {
        CTYTransaction transaction(m_Database);
        std::ranges::for_each(added, [this](const auto& bounds) { m_State.Add(bounds); });
        NoteWithheld();
        transaction.Commit();
    }
    return planned;
}

/// Counts entries that do not leave the device, when a batch behind them says that they are left
/// out.
void CTYForwarder::NoteWithheld() {
    CTYLosses losses;
    for (const auto& [application, records] : m_Withheld) {
        losses.Count(TYLossReason::POLICY, application, records);
    }
    WriteLosses(m_Database, losses, WallClockNow());
    m_Withheld.clear();
}

/// @return false if the limit for this day is reached
bool CTYForwarder::Begin(const CTYSpool::Bounds& bounds) {
    Flight flight;
    flight.bounds = bounds;
    for (const TYForwardedBatch& batch : m_Spool.Read(bounds)) {
        flight.missing.insert(flight.parts.size());
        flight.parts.push_back(m_Codec.Encode(batch));
        flight.parts.back().reply =
            TYPublishAnswer::Subject(m_strInbox, bounds.first, flight.parts.size() - 1);
    }
    if (IsLimited(flight.parts)) {
        return false;
    }
    Send(m_Flights[bounds.first] = std::move(flight));
    return true;
}

bool CTYForwarder::IsLimited(const std::vector<TYMessage>& parts) {
    std::int64_t bytes = 0;
    for (const TYMessage& part : parts) {
        bytes += static_cast<std::int64_t>(part.Size());
    }
    m_bLimited = m_Options.bytesPerDay > 0 &&
                 m_State.BytesAt(Today()) + m_nBytes + bytes > m_Options.bytesPerDay;
    return m_bLimited;
}

void CTYForwarder::Send(Flight& flight) {
    flight.deadline = m_Now() + kAckTime;
    for (const std::size_t part : flight.missing) {
        m_Link.Publish(flight.parts.at(part));
        m_nBytes += static_cast<std::int64_t>(flight.parts.at(part).Size());
    }
}

/// Sends batches again that were not acknowledged in time.
void CTYForwarder::SendLate() {
    const Clock::time_point now = m_Now();
    if (now < m_PausedUntil) {
        return;
    }
    bool isLate = false;
    for (auto& [first, flight] : m_Flights) {
        if (now >= flight.deadline) {
            isLate = true;
            Send(flight);
        }
    }
    if (isLate) {
        Pause("no acknowledgement in time");
    }
}

milliseconds CTYForwarder::UntilDeadline() const {
    Clock::time_point next = m_Now() + kLook;
    for (const auto& [first, flight] : m_Flights) {
        next = std::min(next, std::max(flight.deadline, m_PausedUntil));
    }
    return std::max(std::chrono::ceil<milliseconds>(next - m_Now()), milliseconds(0));
}

void CTYForwarder::Receive(milliseconds timeout) {
    std::vector<TYMessage> messages;
    std::exception_ptr lost;
    try {
        auto message = m_Link.Next(std::min(timeout, kLook));
        while (message) {
            messages.push_back(std::move(*message));
            message = m_Link.Next(milliseconds(0));
        }
    } catch (const CTYLinkLost&) {
        lost = std::current_exception();
    }
    // What has arrived together is noted in one transaction, before anything else happens.
    Note(messages);
    if (lost) {
        std::rethrow_exception(lost);
    }
}

void CTYForwarder::Note(const std::vector<TYMessage>& messages) {
    if (messages.empty()) {
        return;
    }
    CTYTransaction transaction(m_Database);
    for (const TYMessage& message : messages) {
        if (message.subject.starts_with(m_strInbox)) {
            Acknowledged(message);
        } else {
            Watermark(message);
        }
    }
    m_State.AddBytes(Today(), std::exchange(m_nBytes, 0));
    transaction.Commit();
}

void CTYForwarder::Acknowledged(const TYMessage& message) {
    const TYPublishAnswer answer = TYPublishAnswer::Parse(message, m_strInbox);
    const auto known = m_Flights.find(answer.first);
    if (known == m_Flights.end()) {
        return;
    }
    if (!answer.refusal.empty()) {
        Pause(answer.refusal);
        known->second.deadline = m_PausedUntil;
        return;
    }
    known->second.missing.erase(answer.part);
    known->second.sequence = std::max(known->second.sequence, answer.sequence);
    if (known->second.missing.empty()) {
        m_State.Acknowledge(answer.first, known->second.sequence);
        m_Flights.erase(known);
        Resume();
        Progress();
    }
}

void CTYForwarder::Pause(const std::string& reason) {
    if (m_Now() < m_PausedUntil) {
        return;
    }
    if (!m_Backoff.HasFailed()) {
        TY_LOG_ERROR("the servers do not take records: %s; trying again", reason.c_str());
    }
    m_PausedUntil = m_Now() + m_Backoff.Next();
}

/// The servers take batches again: those that were refused need not wait any longer.
void CTYForwarder::Resume() {
    m_Backoff.Reset();
    m_PausedUntil = m_Now();
    for (auto& [first, flight] : m_Flights) {
        flight.deadline = std::min(flight.deadline, m_Now() + kAckTime);
    }
}

void CTYForwarder::Progress() {
    m_LastProgress = m_Now();
    m_bProgressed = true;
}

void CTYForwarder::Watermark(const TYMessage& message) {
    const auto watermark = TYWatermarkMessage::Parse(message.body);
    if (!watermark || watermark->epoch != m_Spool.Epoch()) {
        return;
    }
    if (watermark->stored > m_Spool.LastId()) {
        m_bReplaced = true;
        return;
    }
    if (watermark->stored > m_State.Stored()) {
        Progress();
    }
    if (!watermark->stream) {
        m_State.MoveStored(watermark->stored);
    } else if (IsToBelieve(watermark->stored)) {
        GoBack(watermark->stored, *watermark->stream);
    }
}

/// An answer that is lower than before may have been overtaken by a watermark. Only the second one
/// in a row says that the database was replaced by an older one.
bool CTYForwarder::IsToBelieve(std::int64_t stored) {
    const bool isLower = stored < m_State.Stored();
    const bool isFirst = isLower && m_Lower != stored;
    m_Lower = isLower ? std::optional(stored) : std::nullopt;
    if (isFirst) {
        m_NextAsk = m_Now();
        m_bAskAgain = true;
    }
    return !isFirst;
}

void CTYForwarder::GoBack(std::int64_t stored, const TYStreamState& stream) {
    m_bAnswered = true;
    if (stored < m_State.Stored()) {
        m_Flights.clear();
        m_nPassed = 0;
    }
    if (const int again = m_State.GoBack(stored, stream); again > 0) {
        TY_LOG_INFO("stored up to entry %lld; sending %d batches again",
                    static_cast<long long>(stored), again);
    }
}
