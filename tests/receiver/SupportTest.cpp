// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"
#include "Test.h"

#include "ChildProcess.h"
#include "Eventually.h"
#include "Proc.h"
#include "ServiceProcess.h"
#include "TemporaryFolder.h"
#include "receiver/Caller.h"

namespace {

using namespace std::chrono_literals;

using receiver::CCaller;

TEST(PrivateBus, AcceptsConnectionsOnceItIsCreated) {
    const CPrivateBus bus;
    const CPrivateBus other;

    EXPECT_TRUE(CCaller(bus.Address()).ReachesBus());
    EXPECT_NE(bus.Address(), other.Address());
    EXPECT_NE(bus.Pid(), other.Pid());
}

TEST(PrivateBus, IsKilledByItsDestructorEvenWhenPaused) {
    for (const bool paused : {false, true}) {
        auto pBus = std::make_unique<CPrivateBus>();
        const pid_t nPid = pBus->Pid();
        ASSERT_EQ(kill(nPid, 0), 0);
        if (paused) {
            pBus->Pause();
        }
        pBus.reset();
        EXPECT_NE(kill(nPid, 0), 0);
    }
}

TEST(PrivateBus, HasTheSameAddressAfterARestart) {
    CPrivateBus bus;
    CCaller old(bus.Address());
    ASSERT_TRUE(old.ReachesBus());
    bus.Stop();
    EXPECT_EQ(bus.Pid(), -1);
    EXPECT_FALSE(CCaller(bus.Address()).ReachesBus());
    bus.Restart();

    EXPECT_TRUE(CCaller(bus.Address()).ReachesBus());
    EXPECT_FALSE(old.ReachesBus());
}

TEST(PrivateBus, DoesNotReplyWhileItIsPaused) {
    CPrivateBus bus;
    CCaller caller(bus.Address());
    bus.Pause();
    EXPECT_EQ(ReadProcStat(bus.Pid()).state, 'T');
    EXPECT_FALSE(caller.ReachesBus(50));
    bus.Resume();

    EXPECT_TRUE(caller.ReachesBus());
}

TEST(ChildProcess, ReturnsTheExitCodeOrTheSignal) {
    CChildProcess exits({"sh", "-c", "exit 7"});
    EXPECT_EQ(exits.WaitForExit(kPatience), 7);
    EXPECT_EQ(exits.WaitForExit(0s), 7);

    CChildProcess sleeps({"sleep", "600"});
    EXPECT_EQ(sleeps.WaitForExit(10ms), std::nullopt);
    sleeps.Signal(SIGTERM);
    EXPECT_EQ(sleeps.WaitForExit(kPatience), 128 + SIGTERM);

    EXPECT_EQ(CChildProcess({"/nonexistent/program"}).WaitForExit(kPatience), 127);
}

TEST(ChildProcess, HasTheStreamsAndTheEnvironmentThatItWasGiven) {
    const CTemporaryFolder folder;
    folder.Write("in", "a line");
    setenv("TALLYRA_TEST_REPLACED", "old", 1);
    CChildProcess process({"sh", "-c", "cat; echo $TALLYRA_TEST_REPLACED; echo wrong >&2"},
                          {.environment = {"TALLYRA_TEST_REPLACED=new"},
                           .input = folder.Path() / "in",
                           .output = folder.Path() / "out",
                           .error = folder.Path() / "err"});

    EXPECT_EQ(process.WaitForExit(kPatience), 0);
    EXPECT_EQ(folder.Read("out"), "a linenew\n");
    EXPECT_EQ(folder.Read("err"), "wrong\n");
    EXPECT_STREQ(std::getenv("TALLYRA_TEST_REPLACED"), "old");
}

TEST(ServiceProcess, IsNotReadyWhenTheProgramEnds) {
    EXPECT_FALSE(CServiceProcess("/bin/true", "unix:path=/none").BecomesReady());
    EXPECT_THROW(CServiceProcess("/bin/false", "unix:path=/none").Terminate(), std::runtime_error);
}

}  // namespace
