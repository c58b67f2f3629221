// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "Proc.h"
#include "Sanitizers.h"
#include "TYDbusClient.h"
#include "Test.h"
#include "doubles/PlatformDouble.h"
#include "receiver/Receiver.h"

using receiver::Reply;
using std::chrono::milliseconds;

namespace {

constexpr std::size_t kMessageBytes = 256 * 1024;
constexpr long kMostGrowthKib = 30 * 1024;

long ResidentKib() {
    return ReadProcKib(getpid(), "VmRSS");
}

void ExpectNotMuchMoreThan(long before) {
    if (!kWithSanitizersAllocator) {
        EXPECT_LT(ResidentKib(), before + kMostGrowthKib);
    }
}

GDBusConnection* ConnectPeer(const std::string& address) {
    return g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
}

GVariant* BigText() {
    return g_variant_new("(s)", std::string(kMessageBytes, 'x').c_str());
}

/// A client that shows its connection.
class COpenClient : public CDbusClient {
  public:
    COpenClient() : CDbusClient(receiver::kInterface, receiver::kServiceName, SystemBus()) {}

    std::string Name() const { return dbus_bus_get_unique_name(m_pConnection); }

    /// Calls until nothing waits behind a reply; what comes together with one is dropped with the
    /// next call.
    /// @return whether nothing does
    bool Empties() {
        for (int calls = 0; calls < 100; ++calls) {
            EXPECT_TRUE(IsConnected());
            if (dbus_connection_get_dispatch_status(m_pConnection) == DBUS_DISPATCH_COMPLETE) {
                return true;
            }
        }
        return false;
    }
};

/// Messages that nobody waits for, several times what the process may grow by.
class CStrayMessageTest : public testing::Test {
  protected:
    CStrayMessageTest() {
        CPlatformDouble::Instance().Reset();
        m_Bus.BecomeSystemBus();
        m_Service.OwnName();
    }

    CPrivateBus m_Bus;
    receiver::CReceiver m_Service{m_Bus.Address()};
};

TEST_F(CStrayMessageTest, RepliesThatComeTooLateAreNotKept) {
    m_Service.SetReply("Do", Reply::WithBody(BigText()).After(milliseconds(20)));
    COpenClient client;
    std::vector<CDbusValue> none;
    std::vector<CDbusValue> reply;
    client.SetTimeoutMs(10);
    EXPECT_FALSE(client.SendMessage("Do", none, reply));
    const long before = ResidentKib();
    for (int i = 0; i < 500; ++i) {
        EXPECT_FALSE(client.SendMessage("Do", none, reply));
    }
    EXPECT_TRUE(m_Service.WaitForCalls("Do", 501, std::chrono::seconds(30)));
    EXPECT_TRUE(client.Empties());
    ExpectNotMuchMoreThan(before);
}

TEST_F(CStrayMessageTest, MessagesThatNobodyAskedForAreNotKept) {
    COpenClient client;
    GDBusConnection* pPeer = ConnectPeer(m_Bus.Address());
    ASSERT_NE(pPeer, nullptr);
    EXPECT_TRUE(client.IsConnected());
    const long before = ResidentKib();
    for (int i = 0; i < 1000; ++i) {
        g_dbus_connection_emit_signal(pPeer, client.Name().c_str(), "/noise", "org.example.Noise",
                                      "Noise", BigText(), nullptr);
        g_dbus_connection_flush_sync(pPeer, nullptr, nullptr);
        EXPECT_TRUE(client.IsConnected());
    }
    g_object_unref(pPeer);
    EXPECT_TRUE(client.Empties());
    ExpectNotMuchMoreThan(before);
}

}  // namespace
