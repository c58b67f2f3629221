// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCOLLECTOR_H
#define TALLYRA_TYCOLLECTOR_H

#include "ITYFleetDatabase.h"
#include "ITYFleetLink.h"
#include "ITYRecordStream.h"
#include "TYForwardMessage.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Stores what devices send, and tells them how far they are stored. See TYCollector.cpp.
///
/// Threads: one.
class CTYCollector {
  public:
    using Clock = std::chrono::steady_clock;
    using IsStopped = std::function<bool()>;
    /// Waits before something is tried again.
    using Sleep = std::function<void(std::chrono::milliseconds)>;

    /// All arguments must outlive the collector. Its messages are questions of devices.
    CTYCollector(ITYFleetDatabase& database, ITYFleetLink& link, ITYRecordStream& stream,
                 IsStopped isStopped, Sleep sleep);

    /// Stores what comes, until it is stopped.
    /// @throws CTYLinkLost  if the connection ended
    void Run();

    /// Takes messages once, and answers the questions that have arrived.
    void Step();

  private:
    struct Batches {
        std::vector<TYForwardedBatch> batches;
        std::vector<std::size_t> indices;  ///< of their messages
    };
    using Deliveries = std::vector<ITYRecordStream::Delivery>;

    struct Bad {
        std::size_t index;
        std::string reason;
    };

    Batches Decode(const Deliveries& deliveries, std::vector<Bad>& bad);
    void SetEarlyAside(const Deliveries& deliveries, Batches& batches);
    void Store(const Deliveries& deliveries, const Batches& batches);
    void StoreEach(const Deliveries& deliveries, const Batches& batches);
    void Refuse(const ITYRecordStream::Delivery& delivery, std::size_t index,
                const std::string& reason);
    void Tell(const std::vector<TYWatermark>& watermarks);
    void AnswerQuestions();
    void Answer(const TYMessage& question);
    const std::optional<TYStreamState>& State();
    void LogRefusal(const TYMessage& message, const std::string& reason);
    void MaintainIfDue();
    template <class Operation>
    bool Insist(Operation operation);

    ITYFleetDatabase& m_Database;
    ITYFleetLink& m_Link;
    ITYRecordStream& m_Stream;
    const IsStopped m_IsStopped;
    const Sleep m_Sleep;
    CTYForwardMessage m_Codec;
    std::optional<TYStreamState> m_State;  ///< nothing if the servers did not tell
    Clock::time_point m_NextState;
    Clock::time_point m_NextRefusalLog;
    std::int64_t m_nRefusalsNotLogged = 0;
    Clock::time_point m_NextMaintenance;
};

#endif  // TALLYRA_TYCOLLECTOR_H
