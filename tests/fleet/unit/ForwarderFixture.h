// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FLEET_FORWARDERFIXTURE_H
#define TALLYRA_TESTS_FLEET_FORWARDERFIXTURE_H

#include "FleetFixture.h"
#include "TYForwarder.h"

/// The servers and a collector, as a device sees them. Waiting for a message moves the time.
class CFakeFleet : public ITYFleetLink {
  public:
    std::string Inbox() override { return "_INBOX.tv1.x"; }
    void Subscribe(const std::string& subject) override { m_Subjects.push_back(subject); }
    void Publish(const TYMessage& message) override {
        m_Published.push_back(message);
        if (message.subject == "tallyra.ask.tv1") {
            m_pAnswer ? m_pAnswer(message) : void();
        } else {
            m_pTake(message);
        }
    }
    std::optional<TYMessage> Next(std::chrono::milliseconds timeout) override {
        if (m_Arriving.empty()) {
            if (m_bLost) {
                throw CTYLinkLost("lost");
            }
            m_Time += std::max(timeout, std::chrono::milliseconds(1));
            return std::nullopt;
        }
        TYMessage message = m_Arriving.front();
        m_Arriving.pop_front();
        return message;
    }

    void Send(const std::string& subject, const std::string& body) {
        m_Arriving.push_back({.subject = subject, .body = body});
    }
    void Acknowledge(const TYMessage& message) {
        Send(message.reply, R"({"stream":"TALLYRA","seq":)" + std::to_string(++m_nSequence) + "}");
    }
    void Refuse(const TYMessage& message) {
        Send(message.reply, R"({"error":{"code":503,"err_code":10077,"description":"full"}})");
    }
    /// @return the batches that were published, in order
    std::vector<TYForwardedBatch> Batches() {
        CTYForwardMessage codec;
        std::vector<TYForwardedBatch> batches;
        for (const TYMessage& message : m_Published) {
            if (message.subject.starts_with("tallyra.records.")) {
                batches.push_back(codec.Decode(message));
            }
        }
        return batches;
    }
    /// @return the first ids of the batches that were published, in order
    std::vector<std::int64_t> Firsts() {
        std::vector<std::int64_t> firsts;
        for (const TYForwardedBatch& batch : Batches()) {
            firsts.push_back(batch.first);
        }
        return firsts;
    }

    CTYForwarder::Clock::time_point m_Time;
    std::vector<std::string> m_Subjects;
    std::vector<TYMessage> m_Published;
    std::deque<TYMessage> m_Arriving;
    std::uint64_t m_nSequence = 0;
    bool m_bLost = false;
    std::function<void(const TYMessage&)> m_pAnswer;
    std::function<void(const TYMessage&)> m_pTake = [this](const TYMessage& m) { Acknowledge(m); };
};

/// Runs a forwarder over a store, with a fake fleet.
class CForwarderTest : public CStoreTest {
  protected:
    void SetUp() override {
        CTYStore(m_File.string());
        m_strEpoch = Column("SELECT epoch FROM store").at(0);
    }
    void AddEntries(int count) {
        CTYStore(m_File.string())
            .Add(MakeBatch(std::vector<TYMediaData>(static_cast<std::size_t>(count),
                                                    MakeRecord(TY_EVENT_PLAYBACK_TIME))));
    }
    TYForwardEnd Run() {
        CFileReader database(m_File, CTYDatabase::Mode::READ_WRITE);
        database.HasMoved();
        return CTYForwarder(
                   database, m_Options, m_Fleet, [this] { return m_IsStopped(); },
                   [this] { return m_Fleet.m_Time; })
            .Run();
    }
    void Stored(std::int64_t stored) {
        m_Fleet.Send("tallyra.stored.tv1", m_strEpoch + ' ' + std::to_string(stored));
    }
    /// Answers questions from now on.
    void Answer(std::int64_t stored, std::int64_t processedUpTo, const std::string& stream = "s1") {
        m_Fleet.m_pAnswer = [=, this](const TYMessage& question) {
            m_Fleet.Send("tallyra.stored.tv1", question.body + ' ' + std::to_string(stored) + ' ' +
                                                   std::to_string(processedUpTo) + ' ' + stream);
        };
    }
    std::vector<std::string> State() {
        return Column("SELECT stored || ' ' || sent FROM forwarding");
    }

    std::string m_strEpoch;
    TYForwarderOptions m_Options{.device = "tv1"};
    CFakeFleet m_Fleet;
    std::function<bool()> m_IsStopped = [] { return false; };
};

#endif  // TALLYRA_TESTS_FLEET_FORWARDERFIXTURE_H
