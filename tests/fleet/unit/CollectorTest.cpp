// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetFixture.h"
#include "TYCollector.h"
#include "TYFleetStore.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::UnorderedElementsAre;

namespace {

using std::chrono::milliseconds;

/// A stream that delivers what a test puts into it.
class CFakeStream : public ITYRecordStream {
  public:
    std::vector<Delivery> Fetch(milliseconds) override { return std::exchange(m_Waiting, {}); }
    void Acknowledge(std::size_t index) override { m_Acknowledged.push_back(index); }
    void Return(std::size_t index) override { m_Returned.push_back(index); }
    void PutAside(const TYMessage& message, const std::string& reason) override {
        m_Aside.emplace_back(message.subject, reason);
    }
    TYStreamState State() override {
        if (m_bSilent) {
            throw CTYLinkLost("no answer");
        }
        return {"s1", 42};
    }

    bool m_bSilent = false;

    std::vector<Delivery> m_Waiting;
    std::vector<std::size_t> m_Acknowledged;
    std::vector<std::size_t> m_Returned;
    std::vector<std::pair<std::string, std::string>> m_Aside;
};

class CFakeLink : public ITYFleetLink {
  public:
    std::string Inbox() override { return ""; }
    void Subscribe(const std::string&) override {}
    void Publish(const TYMessage& message) override {
        m_Published.emplace_back(message.subject, message.body);
    }
    std::optional<TYMessage> Next(milliseconds) override {
        if (m_Questions.empty()) {
            return std::nullopt;
        }
        TYMessage question = m_Questions.front();
        m_Questions.pop_front();
        return question;
    }

    std::deque<TYMessage> m_Questions;
    std::vector<std::pair<std::string, std::string>> m_Published;
};

/// A store that fails when a test wants it to.
class CFailingStore : public CTYFleetStore {
  public:
    using CTYFleetStore::CTYFleetStore;
    std::vector<TYWatermark> Add(std::span<const TYForwardedBatch> batches) override {
        if (m_nUnavailable > 0) {
            --m_nUnavailable;
            throw CTYDatabaseUnavailable("down");
        }
        m_pBeforeAdd();
        for (const TYForwardedBatch& batch : batches) {
            if (batch.device == m_strRefused) {
                throw std::runtime_error("cannot be stored");
            }
        }
        return CTYFleetStore::Add(batches);
    }

    int m_nUnavailable = 0;
    std::string m_strRefused;
    std::function<void()> m_pBeforeAdd = [] {};
};

class Collector : public CStoreTest {
  protected:
    void Deliver(TYForwardedBatch batch, const std::string& device = "tv1", int times = 1) {
        batch.device = device;
        m_Stream.m_Waiting.push_back({m_Codec.Encode(batch), static_cast<std::uint64_t>(times)});
    }
    void Ask(const std::string& subject, const std::string& body) {
        m_Link.m_Questions.push_back({.subject = subject, .body = body});
    }
    std::string Watermark(std::int64_t stored) {
        return std::string(kEpoch) + ' ' + std::to_string(stored);
    }

    CFailingStore m_Store{m_File, {}};
    CFakeLink m_Link;
    CFakeStream m_Stream;
    CTYForwardMessage m_Codec;
    bool m_bStopped = false;
    milliseconds m_Slept{0};
    CTYCollector m_Collector{m_Store, m_Link, m_Stream, [this] { return m_bStopped; },
                             [this](milliseconds time) { m_Slept += time; }};
};

TEST_F(Collector, StoresAndAcknowledgesAndTellsTheDevices) {
    Deliver(ForwardedBatch(0, 1, 24));
    Deliver(ForwardedBatch(0, 1, 10), "tv2");
    Deliver(ForwardedBatch(24, 25, 24));
    m_Collector.Step();
    EXPECT_EQ(Stored(), 58);
    EXPECT_THAT(m_Stream.m_Acknowledged, UnorderedElementsAre(0, 1, 2));
    EXPECT_THAT(m_Link.m_Published,
                UnorderedElementsAre(Pair("tallyra.stored.tv1", Watermark(48)),
                                     Pair("tallyra.stored.tv2", Watermark(10))));
}

TEST_F(Collector, StoresWhatIsDeliveredTwiceOnce) {
    Deliver(ForwardedBatch(0, 1, 24));
    Deliver(ForwardedBatch(0, 1, 24));
    m_Collector.Step();
    Deliver(ForwardedBatch(0, 1, 24));
    m_Collector.Step();
    EXPECT_EQ(Stored(), 24);
    EXPECT_THAT(m_Stream.m_Acknowledged, ElementsAre(0, 1, 0));
}

TEST_F(Collector, AcknowledgesNothingBeforeTheCommit) {
    Deliver(ForwardedBatch(0, 1, 24));
    m_Store.m_pBeforeAdd = [&] { EXPECT_THAT(m_Stream.m_Acknowledged, IsEmpty()); };
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Acknowledged, SizeIs(1));
}

TEST_F(Collector, KeepsWhatItHasWhileTheDatabaseIsDown) {
    Deliver(ForwardedBatch(0, 1, 24));
    m_Store.m_nUnavailable = 5;
    m_Collector.Step();
    EXPECT_EQ(Stored(), 24);
    EXPECT_EQ(m_Slept, milliseconds(100 + 200 + 400 + 800 + 1600));
    EXPECT_THAT(m_Stream.m_Acknowledged, SizeIs(1));
}

TEST_F(Collector, AcknowledgesNothingIfItIsStoppedWhileTheDatabaseIsDown) {
    Deliver(ForwardedBatch(0, 1, 24));
    m_Store.m_nUnavailable = 1;
    m_bStopped = true;
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Acknowledged, IsEmpty());
    EXPECT_EQ(Stored(), 0);
}

TEST_F(Collector, PutsAMalformedMessageAsideAndItsDeviceGoesOn) {
    Deliver(ForwardedBatch(0, 1, 24));
    m_Stream.m_Waiting[0].message.body[16] = 'x';
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Aside, ElementsAre(Pair(std::string("tallyra.records.tv1.") + kEpoch,
                                                   "not decompressible")));
    EXPECT_THAT(m_Stream.m_Acknowledged, ElementsAre(0));
    EXPECT_EQ(Number("SELECT records FROM losses WHERE reason = 'bad_batch'"), 1);
    Deliver(ForwardedBatch(24, 25, 24));
    m_Collector.Step();
    EXPECT_EQ(Stored(), 24);
    EXPECT_EQ(m_Store.StoredUpTo("tv1", kEpoch), 48);
}

TEST_F(Collector, StoresGoodMessagesBeforeItRefusesBadOnes) {
    m_Stream.m_Waiting.push_back({{.subject = "tallyra.records.tv1.x", .body = "hello"}});
    Deliver(ForwardedBatch(0, 1, 24));
    m_Store.m_pBeforeAdd = [&] { EXPECT_THAT(m_Stream.m_Aside, IsEmpty()); };
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Acknowledged, ElementsAre(1, 0));
}

TEST_F(Collector, PutsAMessageAsideThatSaysNothing) {
    m_Stream.m_Waiting.push_back({{.subject = "tallyra.records.tv1.x", .body = "hello"}});
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Aside, SizeIs(1));
    EXPECT_THAT(m_Stream.m_Acknowledged, ElementsAre(0));
    EXPECT_EQ(Number("SELECT count(*) FROM coverage"), 0);
}

TEST_F(Collector, StoresTheOthersIfOneBatchCannotBeStored) {
    m_Store.m_strRefused = "tv2";
    Deliver(ForwardedBatch(0, 1, 24));
    Deliver(ForwardedBatch(0, 1, 24), "tv2");
    Deliver(ForwardedBatch(0, 1, 24), "tv3");
    m_Collector.Step();
    EXPECT_EQ(Stored(), 48);
    EXPECT_THAT(m_Stream.m_Aside, ElementsAre(Pair(std::string("tallyra.records.tv2.") + kEpoch,
                                                   "cannot be stored")));
    EXPECT_THAT(m_Stream.m_Acknowledged, UnorderedElementsAre(0, 1, 2));
}

TEST_F(Collector, ReturnsWhatComesTooEarlyAndDropsItInTheEnd) {
    Deliver(ForwardedBatch(24, 25, 24), "tv1", 44);
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Returned, ElementsAre(0));
    EXPECT_THAT(m_Stream.m_Acknowledged, IsEmpty());
    Deliver(ForwardedBatch(24, 25, 24), "tv1", 45);
    m_Collector.Step();
    EXPECT_THAT(m_Stream.m_Acknowledged, ElementsAre(0));
    EXPECT_EQ(Stored(), 0);
    EXPECT_EQ(m_Store.StoredUpTo("tv1", kEpoch), 0);
}

TEST_F(Collector, AnswersHowFarADeviceIsStoredAndTheStreamProcessed) {
    Deliver(ForwardedBatch(0, 1, 24));
    m_Collector.Step();
    m_Link.m_Published.clear();
    Ask("tallyra.ask.tv1", kEpoch);
    Ask("tallyra.ask.tv2", kOtherEpoch);
    m_Collector.Step();
    EXPECT_THAT(m_Link.m_Published,
                ElementsAre(Pair("tallyra.stored.tv1", Watermark(24) + " 42 s1"),
                            Pair("tallyra.stored.tv2", std::string(kOtherEpoch) + " 0 42 s1")));
}

TEST_F(Collector, StoresOnWhileTheServersDoNotTellHowFarTheStreamIs) {
    m_Stream.m_bSilent = true;
    Ask("tallyra.ask.tv1", kEpoch);
    Deliver(ForwardedBatch(0, 1, 24));
    m_Collector.Step();
    EXPECT_THAT(m_Link.m_Published, ElementsAre(Pair("tallyra.stored.tv1", Watermark(24))));
}

TEST_F(Collector, AnswersNoQuestionThatNoDeviceAsks) {
    Ask("tallyra.ask.tv1", "");
    Ask("tallyra.ask.tv1", "'; DROP TABLE entries");
    Ask("tallyra.ask.", kEpoch);
    Ask("tallyra", kEpoch);
    m_Collector.Step();
    EXPECT_THAT(m_Link.m_Published, IsEmpty());
}

}  // namespace
