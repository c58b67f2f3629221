// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Test.h"
#include "receiver/Receiver.h"

#include "Eventually.h"
#include "Image.h"
#include "PrivateBus.h"
#include "receiver/Caller.h"

namespace receiver {
namespace {

using namespace std::chrono_literals;

GVariant* MakeBatch(const std::vector<Bytes>& images, const std::vector<std::string>& urls) {
    std::vector<Value> values{"SendData"};
    values.insert(values.end(), images.begin(), images.end());
    values.insert(values.end(), urls.begin(), urls.end());
    return EncodeBody(values);
}

class ReceiverOnABus : public testing::Test {
  protected:
    ReceiverOnABus() { m_receiver.OwnName(); }

    std::string SendData(const std::vector<Bytes>& images, const std::vector<std::string>& urls) {
        return m_caller.Call(MakeBatch(images, urls));
    }

    CPrivateBus m_bus;
    CReceiver m_receiver{m_bus.Address()};
    CCaller m_caller{m_bus.Address()};
};

constexpr const char* kKick = "(0, 1, 'Kick', 1, 1, 'Kick')";
constexpr const char* kPolicy = "(0, 1, 'GetPolicyInfo', 1, 1, 'com.example.player')";

TEST_F(ReceiverOnABus, RepliesByTheRulesOrWithTheSetPolicy) {
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(SendData({MakeImage(1)}, {"a"}), "(0, 0, 1, 1, 0, 1)");
    m_receiver.SetPolicy(-7);
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, -7)");
}

TEST_F(ReceiverOnABus, KeepsCallsAndRecordsInOrder) {
    m_caller.Call(kPolicy);
    SendData({MakeImage(1)}, {"first"});
    SendData({MakeImage(77), MakeImage(2)}, {"second", "third"});
    const Call call = m_receiver.Calls().at(0);
    const std::vector<ReceivedRecord> records = m_receiver.Records();

    EXPECT_EQ(call.strFunction, "GetPolicyInfo");
    EXPECT_EQ(call.values, std::vector<Value>{"com.example.player"});
    EXPECT_EQ(call.strSignature, "(iisiis)");
    EXPECT_EQ(call.strSender, m_caller.Name());
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].nBatch, 0U);
    EXPECT_EQ(records[1].nBatch, 1U);
    EXPECT_EQ(records[2].nBatch, 1U);
    EXPECT_EQ(records[1].record.event, 77);
    EXPECT_EQ(records[1].image, MakeImage(77));
    EXPECT_EQ(records[1].strUrl, "second");
    EXPECT_EQ(records[1].strSender, m_caller.Name());
    EXPECT_TRUE(m_receiver.Problems().empty());
}

// A message's signature has at most 255 characters: "iis" for the name, "iiay" and "iis" a record.
TEST_F(ReceiverOnABus, AcceptsTheLargestAndTheEmptyBatch) {
    EXPECT_EQ(SendData(std::vector(36, MakeImage(8)), std::vector<std::string>(36, "u")),
              "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_receiver.Records().size(), 36U);
    EXPECT_EQ(SendData({}, {}), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_receiver.Records().size(), 36U);
    EXPECT_EQ(m_receiver.Calls("SendData").size(), 2U);
}

TEST_F(ReceiverOnABus, RefusesMalformedCallsAndKeepsTheReason) {
    const std::pair<const char*, const char*> calls[] = {
        {"(0, 1, 'Kick', 5, 1, 'Kick')", "argument 3: index 5, expected 1"},
        {"(0, 1, 'Kick', 1, 1, 'Hit')", "the only argument must be the string \"Kick\""},
        {"(0, 1, 'GetPolicyInfo', 1, 0, 5)", "the only argument must be a string"},
        {"(0, 1, 'Sing')", "unknown function"},
        {"(0, 0, 5)", "value 0 must be the name of a function"},
        {"()", "value 0 must be the name of a function"}};
    for (const auto& [pCall, pProblem] : calls) {
        SCOPED_TRACE(pCall);
        EXPECT_EQ(m_caller.Call(pCall), "org.freedesktop.DBus.Error.InvalidArgs");
        EXPECT_EQ(m_receiver.Calls().back().strProblem, pProblem);
    }
    EXPECT_EQ(m_receiver.Problems().front(),
              "Kick from " + m_caller.Name() + ": argument 3: index 5, expected 1");
}

TEST_F(ReceiverOnABus, RefusesABatchWithABadRecord) {
    Bytes shorter = MakeImage(1);
    shorter.pop_back();

    EXPECT_EQ(SendData({MakeImage(1), shorter}, {"a", "b"}),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(m_receiver.Calls().at(0).strProblem,
              "record 1: an image of 4799 bytes, expected 4800");
    EXPECT_EQ(m_receiver.Records().size(), 2U);
}

TEST_F(ReceiverOnABus, NotesCallsOfOtherMethods) {
    EXPECT_EQ(m_caller.Call(static_cast<GVariant*>(nullptr), 10'000, "Other"),
              "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(m_receiver.Problems(),
              std::vector<std::string>{"a call of org.veltra.tv.tallyra.client.Other on "
                                       "/org/veltra/tv/tallyra/service"});
}

TEST_F(ReceiverOnABus, RepliesWithAnyBodyOrError) {
    const std::pair<Reply, const char*> replies[] = {
        {Reply::WithBody(g_variant_new_parsed("('x', 5)")), "('x', 5)"},
        {Reply::WithBody(g_variant_new_parsed("()")), "()"},
        {Reply::WithValues({"no", 0}), "(0, 1, 'no', 1, 0, 0)"},
        {Reply::WithError("org.example.Full", "no room"), "org.example.Full"},
        {Reply::ByRules(), "(0, 0, 1)"}};
    for (const auto& [reply, pText] : replies) {
        m_receiver.SetReply("Kick", reply);
        EXPECT_EQ(m_caller.Call(kKick), pText);
    }
}

TEST_F(ReceiverOnABus, DelaysOrOmitsAReplyWithoutDelayingOthers) {
    m_receiver.SetReply("Kick", Reply::ByRules().After(300ms));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);

    m_receiver.SetReply("Kick", Reply::ByRules().After(1h));
    EXPECT_NE(m_caller.Call(kKick, 20), "(0, 0, 1)");
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, 1)");
    m_receiver.SetReply("Kick", Reply::Never());
    EXPECT_EQ(m_caller.Call(kKick, 50), "Timeout was reached");
    EXPECT_TRUE(m_receiver.WaitForCalls("Kick", 3, kPatience));
}

TEST_F(ReceiverOnABus, IsUnknownWithoutItsName) {
    m_receiver.ReleaseName();
    EXPECT_EQ(m_caller.Call(kKick), "org.freedesktop.DBus.Error.ServiceUnknown");
    m_receiver.ReleaseName();
    m_receiver.OwnName();
    m_receiver.OwnName();

    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
}

TEST_F(ReceiverOnABus, WaitsForRecordsEventsAndCalls) {
    EXPECT_FALSE(m_receiver.WaitForRecords(1, 1ms));
    m_caller.Call(MakeBatch({MakeImage(1), MakeImage(2)}, {"a", "b"}));

    EXPECT_TRUE(m_receiver.WaitForRecords(2, kPatience));
    EXPECT_FALSE(m_receiver.WaitForRecords(3, 1ms));
    EXPECT_TRUE(m_receiver.WaitForEvent(2, 1, kPatience));
    EXPECT_FALSE(m_receiver.WaitForEvent(2, 2, 1ms));
    EXPECT_TRUE(m_receiver.WaitForCalls("SendData", 1, kPatience));
    EXPECT_FALSE(m_receiver.WaitForCalls("Kick", 1, 1ms));
}

TEST_F(ReceiverOnABus, CannotOwnTheNameOfAnotherOrWithoutABus) {
    CReceiver second(m_bus.Address());
    EXPECT_THROW(second.OwnName(), std::runtime_error);
    m_bus.Stop();
    EXPECT_THROW(m_receiver.OwnName(), std::runtime_error);
    EXPECT_THROW(CReceiver("unix:path=/nonexistent/bus"), std::runtime_error);
}

TEST(Receiver, CallsTheObserverWithEachCallAndItsRecords) {
    const CPrivateBus bus;
    std::vector<std::size_t> counts;
    {
        CReceiver receiver(bus.Address(), [&](const Call&, const auto& records) {
            counts.push_back(records.size());
        });
        receiver.OwnName();
        CCaller caller(bus.Address());
        caller.Call(kKick);
        caller.Call(MakeBatch({MakeImage(1), MakeImage(2)}, {"a", "b"}));
    }
    EXPECT_EQ(counts, (std::vector<std::size_t>{0, 2}));
}

TEST(Receiver, IsDestroyedWithDelayedReplies) {
    const CPrivateBus bus;
    auto pReceiver = std::make_optional<CReceiver>(bus.Address());
    pReceiver->OwnName();
    pReceiver->SetReply("Kick", Reply::ByRules().After(1h));
    CCaller caller(bus.Address());
    caller.Call(kKick, 20);
    ASSERT_TRUE(pReceiver->WaitForCalls("Kick", 1, kPatience));
    pReceiver.reset();

    // The bus may notice the disconnection after it has forwarded one more call.
    EXPECT_TRUE(Eventually(
        [&] { return caller.Call(kKick) == "org.freedesktop.DBus.Error.ServiceUnknown"; }));
}

}  // namespace
}  // namespace receiver
