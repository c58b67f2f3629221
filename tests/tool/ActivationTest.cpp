// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ConfiguredBus.h"
#include "OtherUser.h"
#include "Program.h"

#include <gmock/gmock.h>

#include <unistd.h>

#include <string>

namespace {

// The packaged activation file, but with the service that was built, on the test's bus.
std::string ActivationOf(const std::string& address) {
    std::string file;
    for (const std::string& line :
         LinesOf(ReadFile(PACKAGING_BUILT "/org.veltra.tv.tallyra.service.service"))) {
        const bool starts = line.rfind("Exec=", 0) == 0;
        file += starts ? "Exec=" TALLYRA_SERVICE " --db :memory: --address " + address : line;
        file += '\n';
    }
    return file;
}

TEST(Activation, StartsTheServiceForItsFirstCaller) {
    if (CConfiguredBus::IsBroker()) {
        GTEST_SKIP() << "dbus-broker starts services through systemd only";
    }
    const CTemporaryFolder services;
    const CConfiguredBus bus(
        "<policy context=\"default\"><allow own=\"*\"/><allow send_destination=\"*\"/></policy>"
        "<servicedir>" +
            services.Path().string() + "</servicedir>",
        "session");
    services.Write("org.veltra.tv.tallyra.service.service", ActivationOf(bus.Address()));

    ASSERT_FALSE(IsOwned(bus.Address()));
    EXPECT_EQ(CallAs(getuid(), bus.Address()), "status 1");
    EXPECT_TRUE(IsOwned(bus.Address()));
}

TEST(Activation, NamesTheUnitAndTheUserThatAreInstalled) {
    const std::string file = ReadFile(PACKAGING_BUILT "/org.veltra.tv.tallyra.service.service");
    EXPECT_THAT(LinesOf(file),
                testing::IsSupersetOf({"Name=org.veltra.tv.tallyra.service", "User=tallyra",
                                       "SystemdService=tallyra-service.service"}));
    const std::string unit = ReadFile(PACKAGING_BUILT "/tallyra-service.service");
    EXPECT_THAT(LinesOf(unit), testing::IsSupersetOf({"Type=notify", "User=tallyra"}));
    EXPECT_THAT(ReadFile(PACKAGING "/systemd/tallyra-sysusers.conf"),
                testing::HasSubstr("\nu tallyra - "));
}

}  // namespace
