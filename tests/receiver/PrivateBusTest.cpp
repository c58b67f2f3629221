// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"

#include "ChildProcess.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>

namespace {

using namespace std::chrono_literals;

struct Unref {
    void operator()(gpointer pObject) const { g_object_unref(pObject); }
};
using ConnectionPtr = std::unique_ptr<GDBusConnection, Unref>;

ConnectionPtr Connect(const std::string& strAddress) {
    return ConnectionPtr(g_dbus_connection_new_for_address_sync(
        strAddress.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr));
}

bool Answers(const ConnectionPtr& pConnection, int nTimeoutMs) {
    GVariant* pReply = g_dbus_connection_call_sync(
        pConnection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, nTimeoutMs, nullptr, nullptr);
    if (pReply != nullptr) {
        g_variant_unref(pReply);
    }
    return pReply != nullptr;
}

char StateOf(pid_t nPid) {
    std::ifstream stat("/proc/" + std::to_string(nPid) + "/stat");
    std::string strId;
    std::string strName;
    char cState = 0;
    stat >> strId >> strName >> cState;
    return cState;
}

TEST(PrivateBus, TakesConnectionsOnceItIsThere) {
    const CPrivateBus bus;
    const ConnectionPtr pConnection = Connect(bus.Address());

    ASSERT_NE(pConnection, nullptr);
    EXPECT_TRUE(Answers(pConnection, 10'000));
}

TEST(PrivateBus, TwoBusesDoNotMeet) {
    const CPrivateBus one;
    const CPrivateBus other;

    EXPECT_NE(one.Address(), other.Address());
    EXPECT_NE(one.Pid(), other.Pid());
}

TEST(PrivateBus, EndsWithTheObject) {
    auto pBus = std::make_unique<CPrivateBus>();
    const pid_t nPid = pBus->Pid();
    ASSERT_EQ(kill(nPid, 0), 0);
    pBus.reset();

    EXPECT_NE(kill(nPid, 0), 0);
}

TEST(PrivateBus, TakesNobodyWhileItIsStopped) {
    CPrivateBus bus;
    bus.Stop();

    EXPECT_EQ(bus.Pid(), -1);
    EXPECT_EQ(Connect(bus.Address()), nullptr);
}

TEST(PrivateBus, IsOnTheSameAddressAfterARestart) {
    CPrivateBus bus;
    const std::string strAddress = bus.Address();
    const ConnectionPtr pOld = Connect(strAddress);
    bus.Restart();
    const ConnectionPtr pNew = Connect(strAddress);

    ASSERT_NE(pNew, nullptr);
    EXPECT_TRUE(Answers(pNew, 10'000));
    EXPECT_FALSE(Answers(pOld, 10'000));
}

TEST(PrivateBus, AnswersNobodyWhileItIsHalted) {
    CPrivateBus bus;
    const ConnectionPtr pConnection = Connect(bus.Address());
    bus.Pause();
    EXPECT_EQ(StateOf(bus.Pid()), 'T');
    EXPECT_FALSE(Answers(pConnection, 50));
    bus.Resume();

    EXPECT_TRUE(Answers(pConnection, 10'000));
}

TEST(PrivateBus, EndsAlsoWhileItIsHalted) {
    auto pBus = std::make_unique<CPrivateBus>();
    const pid_t nPid = pBus->Pid();
    pBus->Pause();
    pBus.reset();

    EXPECT_NE(kill(nPid, 0), 0);
}

TEST(PrivateBus, CanBecomeTheSystemBusOfTheProcess) {
    const CPrivateBus bus;
    bus.BecomeSystemBus();
    char* pAddress = g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr);

    EXPECT_EQ(pAddress, bus.Address());
    g_free(pAddress);
}

TEST(ChildProcess, ItsExitCodeIsHandedBack) {
    CChildProcess process({"sh", "-c", "exit 7"});

    EXPECT_EQ(process.WaitForExit(10s), 7);
    EXPECT_EQ(process.WaitForExit(0s), 7);
}

TEST(ChildProcess, ASignalThatEndsItIsHandedBack) {
    CChildProcess process({"sleep", "600"});
    EXPECT_EQ(process.WaitForExit(10ms), std::nullopt);
    process.Signal(SIGTERM);

    EXPECT_EQ(process.WaitForExit(10s), 128 + SIGTERM);
}

TEST(ChildProcess, AProgramThatIsMissingIsTold) {
    CChildProcess process({"/nonexistent/program"});

    EXPECT_EQ(process.WaitForExit(10s), 127);
}

}  // namespace
