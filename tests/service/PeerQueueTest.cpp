// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPeerQueue.h"

#include "Test.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class PeerQueue : public testing::Test {
  protected:
    /// Adds a call; its serial is its order of arrival, from 1.
    void Add(std::int64_t user, const std::string& peer, std::size_t bytes = 100,
             bool isQuick = false) {
        auto& known = m_Peers[peer];
        if (known == nullptr) {
            known = std::make_shared<CTYPeers::Peer>();
            known->identity = {"bus", peer, user, std::nullopt};
        }
        TYMessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_CALL));
        dbus_message_set_serial(message.get(), ++m_nSerial);
        m_Queue.Add({std::move(message), known, known->identity, bytes, isQuick, {}});
    }
    void AddQuick(std::int64_t user, const std::string& peer) { Add(user, peer, 100, true); }

    static std::string TextOf(const TYWaitingCall& call) {
        return call.peer->identity.name + "#" +
               std::to_string(dbus_message_get_serial(call.message.get()));
    }
    std::vector<std::string> TakeAll(int atMost = INT_MAX) {
        std::vector<std::string> calls;
        while (atMost-- > 0) {
            const std::optional<TYWaitingCall> call = m_Queue.Take();
            if (!call) {
                break;
            }
            calls.push_back(TextOf(*call));
        }
        return calls;
    }
    std::vector<std::string> TakeExcess() {
        std::vector<std::string> calls;
        while (const std::optional<TYWaitingCall> call = m_Queue.TakeExcess()) {
            calls.push_back(TextOf(*call));
        }
        return calls;
    }

    std::map<std::string, std::shared_ptr<CTYPeers::Peer>> m_Peers;
    dbus_uint32_t m_nSerial = 0;
    CTYPeerQueue m_Queue{1000};
};

TEST_F(PeerQueue, GivesOneTurnToEachUserAndEachOfItsPeers) {
    for (const char* pPeer : {"a1", "a1", "a1", "a2", "a3"}) {
        Add(1, pPeer);
    }
    Add(2, "b1");
    Add(2, "b1");
    EXPECT_THAT(TakeAll(), ElementsAre("a1#1", "b1#6", "a2#4", "b1#7", "a3#5", "a1#2", "a1#3"));
    EXPECT_TRUE(m_Queue.IsEmpty());
    EXPECT_EQ(m_Queue.Bytes(), 0U);
}

TEST_F(PeerQueue, ServesALateCallAfterOneCallOfEachOther) {
    for (int i = 0; i < 100; ++i) {
        Add(1, "flood" + std::to_string(i % 20));
    }
    TakeAll(7);
    Add(2, "late");
    EXPECT_EQ(TakeAll(1), std::vector<std::string>{"late#101"});
    TakeAll(5);
    // The same user as the flood's.
    Add(1, "zlate");
    const auto calls = TakeAll(21);
    EXPECT_EQ(std::ranges::count(calls, "zlate#102"), 1);
}

TEST_F(PeerQueue, KeepsTheOrderOfAPeersBatches) {
    for (int i = 0; i < 5; ++i) {
        Add(1, "a");
        AddQuick(1, "b");
    }
    EXPECT_THAT(TakeAll(),
                ElementsAre("b#2", "b#4", "b#6", "b#8", "b#10", "a#1", "a#3", "a#5", "a#7", "a#9"));
}

TEST_F(PeerQueue, ServesQuickCallsInTurnAndBeforeBatches) {
    Add(1, "a");
    AddQuick(1, "a");
    AddQuick(1, "a");
    Add(2, "b");
    AddQuick(2, "b");
    EXPECT_TRUE(m_Queue.HasQuick());
    EXPECT_THAT(TakeAll(3), ElementsAre("a#2", "b#5", "a#3"));
    EXPECT_FALSE(m_Queue.HasQuick());
    EXPECT_THAT(TakeAll(), ElementsAre("a#1", "b#4"));
}

TEST_F(PeerQueue, DropsTheNewestCallsOfThePeerThatHoldsMost) {
    Add(1, "small", 300);
    for (int i = 0; i < 4; ++i) {
        Add(2, "large", 300);
    }
    EXPECT_THAT(TakeExcess(), ElementsAre("large#5", "large#4"));
    EXPECT_EQ(m_Queue.Bytes(), 900U);
    EXPECT_THAT(TakeAll(), ElementsAre("small#1", "large#2", "large#3"));
}

TEST_F(PeerQueue, DropsFromAUserWithManyPeersRatherThanFromThePeerWithTheLargestCall) {
    Add(1, "a", 400);
    for (int i = 0; i < 7; ++i) {
        Add(2, "b" + std::to_string(i), 100);
    }
    EXPECT_THAT(TakeExcess(), ElementsAre("b0#2"));
}

TEST_F(PeerQueue, KnowsWhichCallItWouldDrop) {
    Add(1, "a", 300);
    Add(2, "b", 400);
    Add(2, "c", 200);
    EXPECT_FALSE(m_Queue.IsTooMuch(*m_Peers["b"], 100));
    EXPECT_TRUE(m_Queue.IsTooMuch(*m_Peers["b"], 101));
    EXPECT_FALSE(m_Queue.IsTooMuch(*m_Peers["c"], 150));
    EXPECT_FALSE(m_Queue.IsTooMuch(*m_Peers["a"], 150));
    EXPECT_TRUE(m_Queue.IsTooMuch(*m_Peers["a"], 400));
    for (const auto& [pUser, pName] : {std::pair{1, "a"}, {2, "b"}, {2, "c"}}) {
        const bool isTooMuch = m_Queue.IsTooMuch(*m_Peers[pName], 250);
        Add(pUser, pName, 250);
        const auto dropped = TakeExcess();
        EXPECT_EQ(dropped == std::vector{std::string(pName) + "#" + std::to_string(m_nSerial)},
                  isTooMuch)
            << pName;
    }
}

TEST_F(PeerQueue, DropsNothingWithinItsLimit) {
    Add(1, "a", 999);
    Add(1, "a", 1);
    EXPECT_THAT(TakeExcess(), IsEmpty());
    AddQuick(1, "b");
    EXPECT_THAT(TakeExcess(), ElementsAre("a#2", "a#1"));
    EXPECT_THAT(TakeAll(), ElementsAre("b#3"));
}

}  // namespace
