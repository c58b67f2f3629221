// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "receiver/Receiver.h"

#include "Image.h"
#include "PrivateBus.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>

namespace receiver {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::seconds kLimit{10};

// A caller on the bus that writes its calls down argument by argument.
class CCaller {
  public:
    explicit CCaller(const std::string& strAddress)
        : m_pConnection(g_dbus_connection_new_for_address_sync(
              strAddress.c_str(),
              static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                                G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
              nullptr, nullptr, nullptr)) {}
    ~CCaller() { g_object_unref(m_pConnection); }
    CCaller(const CCaller&) = delete;
    CCaller& operator=(const CCaller&) = delete;

    // Returns the reply's text form, or the name of the error.
    std::string Call(GVariant* pBody, int nTimeoutMs = 10'000,
                     const char* pMember = "TYCallFunction") {
        GError* pError = nullptr;
        GVariant* pReply = g_dbus_connection_call_sync(
            m_pConnection, "org.veltra.tv.tallyra.service", "/org/veltra/tv/tallyra/service",
            "org.veltra.tv.tallyra.client", pMember, pBody, nullptr, G_DBUS_CALL_FLAGS_NONE,
            nTimeoutMs, nullptr, &pError);
        return pReply == nullptr ? TakeError(pError) : TakeText(pReply);
    }

    std::string Call(const char* pText, int nTimeoutMs = 10'000) {
        return Call(g_variant_new_parsed(pText), nTimeoutMs);
    }

    std::string Name() const { return g_dbus_connection_get_unique_name(m_pConnection); }

  private:
    static std::string TakeError(GError* pError) {
        char* pName = g_dbus_error_get_remote_error(pError);
        std::string strName = pName != nullptr ? pName : pError->message;
        g_free(pName);
        g_error_free(pError);
        return strName;
    }
    static std::string TakeText(GVariant* pReply) {
        char* pText = g_variant_print(pReply, FALSE);
        std::string strText = pText;
        g_free(pText);
        g_variant_unref(pReply);
        return strText;
    }

    GDBusConnection* m_pConnection;
};

GVariant* MakeBatch(const std::vector<Bytes>& images, const std::vector<std::string>& urls) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_TUPLE);
    int nIndex = 0;
    const auto add = [&](int nType, GVariant* pPayload) {
        g_variant_builder_add(&builder, "i", nIndex++);
        g_variant_builder_add(&builder, "i", nType);
        g_variant_builder_add_value(&builder, pPayload);
    };
    add(1, g_variant_new_string("SendData"));
    for (const Bytes& image : images) {
        add(2, g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, image.data(), image.size(), 1));
    }
    for (const std::string& strUrl : urls) {
        add(1, g_variant_new_string(strUrl.c_str()));
    }
    return g_variant_builder_end(&builder);
}

class ReceiverOnABus : public testing::Test {
  protected:
    ReceiverOnABus() { m_receiver.OwnName(); }

    CPrivateBus m_bus;
    CReceiver m_receiver{m_bus.Address()};
    CCaller m_caller{m_bus.Address()};
};

constexpr const char* kKick = "(0, 1, 'Kick', 1, 1, 'Kick')";
constexpr const char* kPolicy = "(0, 1, 'GetPolicyInfo', 1, 1, 'com.example.player')";

TEST_F(ReceiverOnABus, AnswersAKickWithItsStatus) {
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");

    m_receiver.SetStatus("Kick", 0);
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 0)");
}

TEST_F(ReceiverOnABus, AnswersAPolicyRequestWithThePolicy) {
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, 1)");

    m_receiver.SetPolicy(-7);
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, -7)");
}

TEST_F(ReceiverOnABus, AnswersABatchWithItsAcceptance) {
    EXPECT_EQ(m_caller.Call(MakeBatch({MakeImage(1)}, {"a"})), "(0, 0, 1, 1, 0, 1)");

    m_receiver.SetAccepted(0);
    EXPECT_EQ(m_caller.Call(MakeBatch({MakeImage(1)}, {"a"})), "(0, 0, 1, 1, 0, 0)");
}

TEST_F(ReceiverOnABus, KeepsEachCallWithItsSenderAndTime) {
    const auto before = std::chrono::system_clock::now();
    m_caller.Call(kPolicy);
    const std::vector<Call> calls = m_receiver.Calls();

    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].strFunction, "GetPolicyInfo");
    EXPECT_EQ(calls[0].values, std::vector<Value>{"com.example.player"});
    EXPECT_EQ(calls[0].strSignature, "(iisiis)");
    EXPECT_EQ(calls[0].strSender, m_caller.Name());
    EXPECT_EQ(calls[0].strProblem, "");
    EXPECT_GE(calls[0].arrival, before);
    EXPECT_LE(calls[0].arrival, std::chrono::system_clock::now());
}

TEST_F(ReceiverOnABus, KeepsEachRecordWithItsImageUrlAndBatch) {
    const Bytes second = MakeImage(77);
    m_caller.Call(MakeBatch({MakeImage(1)}, {"first"}));
    m_caller.Call(MakeBatch({second, MakeImage(2)}, {"second", "third"}));
    const std::vector<ReceivedRecord> records = m_receiver.Records();

    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].nBatch, 0U);
    EXPECT_EQ(records[1].nBatch, 1U);
    EXPECT_EQ(records[2].nBatch, 1U);
    EXPECT_EQ(records[1].record.event, 77);
    EXPECT_EQ(records[1].image, second);
    EXPECT_EQ(records[1].strUrl, "second");
    EXPECT_EQ(records[1].strSender, m_caller.Name());
    EXPECT_TRUE(m_receiver.Problems().empty());
}

// A message's signature has at most 255 characters: "iis" for the name, "iiay" and "iis" a record.
TEST_F(ReceiverOnABus, TakesTheLargestBatchThatAMessageHolds) {
    const std::vector<Bytes> images(36, MakeImage(8));
    const std::vector<std::string> urls(36, "u");

    EXPECT_EQ(m_caller.Call(MakeBatch(images, urls)), "(0, 0, 1, 1, 0, 1)");
    EXPECT_EQ(m_receiver.Records().size(), 36U);
}

TEST_F(ReceiverOnABus, TakesAnEmptyBatch) {
    EXPECT_EQ(m_caller.Call(MakeBatch({}, {})), "(0, 0, 1, 1, 0, 1)");
    EXPECT_TRUE(m_receiver.Records().empty());
    EXPECT_EQ(m_receiver.Calls("SendData").size(), 1U);
}

TEST_F(ReceiverOnABus, RefusesMalformedCallsAndKeepsTheReason) {
    EXPECT_EQ(m_caller.Call("(0, 1, 'Kick', 5, 1, 'Kick')"),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(m_receiver.Calls("Kick").at(0).strProblem, "argument 3: index 5 where 1 is due");
    EXPECT_EQ(m_receiver.Problems(),
              std::vector<std::string>{"Kick from " + m_caller.Name() +
                                       ": argument 3: index 5 where 1 is due"});
}

TEST_F(ReceiverOnABus, RefusesArgumentsThatAFunctionDoesNotTake) {
    m_caller.Call("(0, 1, 'Kick', 1, 1, 'Hit')");
    m_caller.Call("(0, 1, 'GetPolicyInfo', 1, 0, 5)");
    m_caller.Call("(0, 1, 'Sing')");
    m_caller.Call("(0, 0, 5)");
    const std::vector<Call> calls = m_receiver.Calls();

    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0].strProblem, "the only argument has to be the text \"Kick\"");
    EXPECT_EQ(calls[1].strProblem, "the only argument has to be a text");
    EXPECT_EQ(calls[2].strProblem, "there is no such function");
    EXPECT_EQ(calls[3].strProblem, "value 0 has to be the name of a function");
}

TEST_F(ReceiverOnABus, RefusesACallWithoutArguments) {
    EXPECT_EQ(m_caller.Call(static_cast<GVariant*>(nullptr)),
              "org.freedesktop.DBus.Error.InvalidArgs");
}

TEST_F(ReceiverOnABus, RefusesABatchWithABadRecord) {
    Bytes shorter = MakeImage(1);
    shorter.pop_back();

    EXPECT_EQ(m_caller.Call(MakeBatch({MakeImage(1), shorter}, {"a", "b"})),
              "org.freedesktop.DBus.Error.InvalidArgs");
    EXPECT_EQ(m_receiver.Calls().at(0).strProblem,
              "record 1: an image of 4799 bytes where 4800 are due");
}

TEST_F(ReceiverOnABus, NotesCallsOfOtherMethods) {
    EXPECT_EQ(m_caller.Call(nullptr, 10'000, "Other"), "org.freedesktop.DBus.Error.UnknownMethod");
    EXPECT_EQ(m_receiver.Problems(),
              std::vector<std::string>{"a call of org.veltra.tv.tallyra.client.Other on "
                                       "/org/veltra/tv/tallyra/service"});
}

TEST_F(ReceiverOnABus, AnswersWithAnyBody) {
    m_receiver.SetReply("Kick", Reply::WithBody(g_variant_new_parsed("('x', 5)")));
    EXPECT_EQ(m_caller.Call(kKick), "('x', 5)");

    m_receiver.SetReply("Kick", Reply::WithBody(g_variant_new_parsed("()")));
    EXPECT_EQ(m_caller.Call(kKick), "()");

    m_receiver.SetReply("Kick", Reply::WithValues({"no", 0}));
    EXPECT_EQ(m_caller.Call(kKick), "(0, 1, 'no', 1, 0, 0)");

    m_receiver.SetReply("Kick", Reply::ByRules());
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
}

TEST_F(ReceiverOnABus, AnswersWithAnError) {
    m_receiver.SetReply("SendData", Reply::WithError("org.example.Full", "no room"));

    EXPECT_EQ(m_caller.Call(MakeBatch({MakeImage(1)}, {"a"})), "org.example.Full");
    EXPECT_EQ(m_receiver.Records().size(), 1U);
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
}

TEST_F(ReceiverOnABus, AnswersLateWithoutHoldingOthersUp) {
    m_receiver.SetReply("Kick", Reply::ByRules().After(300ms));
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);

    m_receiver.SetReply("Kick", Reply::ByRules().After(1h));
    EXPECT_NE(m_caller.Call(kKick, 20), "(0, 0, 1)");
    EXPECT_EQ(m_caller.Call(kPolicy), "(0, 0, 1, 1, 0, 1)");
}

TEST_F(ReceiverOnABus, CanStaySilent) {
    m_receiver.SetReply("Kick", Reply::Never());

    EXPECT_EQ(m_caller.Call(kKick, 50), "Timeout was reached");
    EXPECT_TRUE(m_receiver.WaitForCalls("Kick", 1, kLimit));
}

TEST_F(ReceiverOnABus, IsGoneWithoutItsName) {
    m_receiver.ReleaseName();
    EXPECT_EQ(m_caller.Call(kKick), "org.freedesktop.DBus.Error.ServiceUnknown");
    m_receiver.ReleaseName();
    m_receiver.OwnName();
    m_receiver.OwnName();

    EXPECT_EQ(m_caller.Call(kKick), "(0, 0, 1)");
}

TEST_F(ReceiverOnABus, LeavesTheNameToWhoHasIt) {
    CReceiver second(m_bus.Address());

    EXPECT_THROW(second.OwnName(), std::runtime_error);
}

TEST_F(ReceiverOnABus, WaitsForWhatArrives) {
    EXPECT_FALSE(m_receiver.WaitForRecords(1, 1ms));
    m_caller.Call(MakeBatch({MakeImage(1), MakeImage(2)}, {"a", "b"}));

    EXPECT_TRUE(m_receiver.WaitForRecords(2, kLimit));
    EXPECT_FALSE(m_receiver.WaitForRecords(3, 1ms));
    EXPECT_TRUE(m_receiver.WaitForEvent(2, 1, kLimit));
    EXPECT_FALSE(m_receiver.WaitForEvent(2, 2, 1ms));
    EXPECT_TRUE(m_receiver.WaitForCalls("SendData", 1, kLimit));
    EXPECT_FALSE(m_receiver.WaitForCalls("Kick", 1, 1ms));
}

TEST_F(ReceiverOnABus, NoticesTheEndOfTheBus) {
    EXPECT_FALSE(m_receiver.IsDisconnected());
    m_bus.Stop();

    EXPECT_TRUE(m_receiver.WaitForDisconnect(kLimit));
    EXPECT_TRUE(m_receiver.IsDisconnected());
    EXPECT_THROW(m_receiver.OwnName(), std::runtime_error);
}

TEST(Receiver, TellsAnObserverEachCallAndItsRecords) {
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

TEST(Receiver, SaysThatItCannotReachTheBus) {
    EXPECT_THROW(CReceiver("unix:path=/nonexistent/bus"), std::runtime_error);
}

TEST(Receiver, EndsWithRepliesStillDue) {
    const CPrivateBus bus;
    auto pReceiver = std::make_optional<CReceiver>(bus.Address());
    pReceiver->OwnName();
    pReceiver->SetReply("Kick", Reply::ByRules().After(1h));
    CCaller caller(bus.Address());
    caller.Call(kKick, 20);
    ASSERT_TRUE(pReceiver->WaitForCalls("Kick", 1, kLimit));
    pReceiver.reset();

    EXPECT_EQ(caller.Call(kKick), "org.freedesktop.DBus.Error.ServiceUnknown");
}

}  // namespace
}  // namespace receiver
