// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Program.h"
#include "Sanitizers.h"
#include "TableTest.h"

#include <regex>

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string kBroken = "broken     ";
const std::string kNotTried = "not tried  ";

std::vector<std::string> LinesWith(const std::string& text, const std::string& begin) {
    std::vector<std::string> lines = LinesOf(text);
    std::erase_if(lines, [&](const std::string& line) { return !line.starts_with(begin); });
    return lines;
}

/// Runs tallyra-check-platform with a settings file, an application and a network of its own.
class CPlatformCheckTest : public testing::Test {
  protected:
    CPlatformCheckTest() {
        setenv("REGDB_FILE", (m_Folder.Path() / "regdb.ini").c_str(), 1);
        setenv("XDG_DATA_HOME", m_Folder.Path().c_str(), 1);
        setenv("LOGSVC_OUTPUT", "stderr", 1);
        m_Folder.Write("metainfo/org.example.tv.metainfo.xml",
                       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                       "<component type=\"desktop-application\"><id>org.example.tv</id>"
                       "<name>TV</name><releases><release version=\"2.4.1\" date=\"2026-01-31\"/>"
                       "</releases></component>\n");
    }

    static Result Check(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), CHECK_PLATFORM);
        return RunProgram(arguments);
    }

    /// Checks with everything that a check can need.
    static Result CheckAll(const std::string& library) {
        return RunProgram({"unshare", Unshare(), OWN_NETWORK, "run", CHECK_PLATFORM, library,
                           "--change-key", REGDB_COMMAND " set db/tallyra/log_on",
                           "--change-network", OWN_NETWORK, "--app", "org.example.tv"});
    }

    /// @return the option that makes a network namespace; empty without the right to make one
    static std::string Unshare() {
        for (const char* pOption : {"-n", "-rn"}) {
            if (RunProgram({"unshare", pOption, "true"}).code == 0) {
                return pOption;
            }
        }
        return "";
    }

    CTemporaryFolder m_Folder;
};

TEST_F(CPlatformCheckTest, LinuxPlatformKeepsEveryPromiseThatNeedsNoWifi) {
    if (Unshare().empty()) {
        GTEST_SKIP() << "no right to create a network namespace";
    }
    const Result result = CheckAll(LINUX_PLATFORM);
    EXPECT_EQ(result.code, 0) << result.err;
    EXPECT_THAT(LinesWith(result.out, kBroken), IsEmpty());
    EXPECT_THAT(LinesWith(result.out, "holds      regdb.h: "), SizeIs(12));
    EXPECT_THAT(LinesWith(result.out, "holds      connection.h: "), SizeIs(13));
    // In a network namespace of its own there is no wireless device.
    EXPECT_THAT(LinesWith(result.out, kNotTried),
                AllOf(SizeIs(4), Each(AllOf(HasSubstr("wifi_manager.h: "),
                                            HasSubstr(": no connected Wi-Fi: ")))));
}

// The Wi-Fi of this platform breaks one promise only.
TEST_F(CPlatformCheckTest, PromisesOfAConnectedWifiAreTried) {
    const Result result = Check({BROKEN_PLATFORMS "/libbroken-AcceptsNullStrength.so"});
    EXPECT_THAT(LinesWith(result.out, kNotTried + "wifi_manager.h: "),
                ElementsAre(HasSubstr(": the Wi-Fi is connected")));
    EXPECT_THAT(LinesWith(result.out, "holds      wifi_manager.h: "), SizeIs(5));
}

TEST_F(CPlatformCheckTest, WithoutOptionsItSaysWhatItDidNotTryAndWhy) {
    const Result result = Check({LINUX_PLATFORM});
    EXPECT_EQ(result.code, 0) << result.out;
    EXPECT_THAT(
        result.out,
        AllOf(HasSubstr(kNotTried + "regdb.h: a callback may remove itself: needs --change-key, a "
                                    "command that sets db/tallyra/log_on\n"),
              HasSubstr(kNotTried +
                        "appcat.h: strings stay valid until their handle is destroyed: needs "
                        "--app, the identifier of an installed application\n"),
              HasSubstr(kNotTried + "connection.h: a callback may unset its monitor: needs "
                                    "--change-network, a command that takes the network down and "
                                    "up\n"),
              HasSubstr(" hold, 0 broken, ")));
}

TEST_F(CPlatformCheckTest, LogThatCannotBeReadIsNotTried) {
    setenv("LOGSVC_LEVEL", "off", 1);
    EXPECT_THAT(
        LinesWith(Check({LINUX_PLATFORM}).out, kNotTried + "logsvc.h: "),
        ElementsAre(HasSubstr("formats as printf does: the lines are not on standard error; "
                              "name a command that prints the log with --read-log"),
                    HasSubstr("do not mix: the lines are not on standard error")));
    unsetenv("LOGSVC_LEVEL");
}

TEST_F(CPlatformCheckTest, LogIsReadWithTheCommand) {
    setenv("LOGSVC_LEVEL", "off", 1);
    const Result result = Check(
        {LINUX_PLATFORM, "--read-log", "echo tallyra-check-platform: text", "--timeout", "0.5"});
    unsetenv("LOGSVC_LEVEL");
    EXPECT_THAT(result.out,
                HasSubstr(kBroken + "logsvc.h: logsvc_print formats as printf does: the log has "
                                    "\"tallyra-check-platform: text\" instead of "));
}

TEST_F(CPlatformCheckTest, CommandThatFailsOrHangsIsNoFaultOfThePlatform) {
    EXPECT_THAT(Check({LINUX_PLATFORM, "--change-key", "false"}).out,
                AllOf(HasSubstr(kNotTried + "regdb.h: a callback may remove itself: the command of "
                                            "--change-key failed: false 0\n"),
                      HasSubstr(" hold, 0 broken, ")));
    EXPECT_THAT(Check({LINUX_PLATFORM, "--change-key", "sleep 60 #", "--timeout", "0.2"}).out,
                HasSubstr(kNotTried + "regdb.h: a callback may remove itself: the command of "
                                      "--change-key did not return within 200 ms\n"));
}

// A busy machine may delay a callback for that long, hence several attempts.
TEST_F(CPlatformCheckTest, RemovalThatTheCheckItselfHoldsIsNoHangWithAShortTimeout) {
    constexpr std::chrono::seconds kAttempts{20};
    EXPECT_TRUE(Eventually(
        [] {
            const Result result =
                Check({LINUX_PLATFORM, "--change-key", REGDB_COMMAND " set db/tallyra/log_on",
                       "--timeout", "0.2"});
            return result.out.find(
                       "holds      regdb.h: regdb_ignore_key_changed waits for the "
                       "running callback\n") != std::string::npos;
        },
        kAttempts));
}

TEST_F(CPlatformCheckTest, FunctionsMayBeInSeveralLibraries) {
    const Result result = Check({BROKEN_PLATFORMS "/libbroken-MissingFunction.so", LINUX_PLATFORM});
    EXPECT_EQ(result.code, 0);
    EXPECT_THAT(result.out, HasSubstr("holds      wifi_manager.h: every function can be found\n"));
}

/// Checks over a network that does not come down, and notes what it is told.
class CInterruptedCheckTest : public CPlatformCheckTest {
  protected:
    std::vector<std::string> Command() const {
        const std::string file = Told();
        return {CHECK_PLATFORM, LINUX_PLATFORM, "--change-network",
                "change() { echo $1 >>" + file + "; [ $1 = up ] || flock " + file +
                    " sleep 100; }; change"};
    }
    std::string Told() const { return m_Folder.Path() / "told"; }
    std::vector<std::string> Words() const { return LinesOf(m_Folder.Read("told")); }
};

TEST_F(CInterruptedCheckTest, SignalEndsTheCommandAndRestoresTheNetwork) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        std::filesystem::remove(Told());
        CProgram program(Command());
        ASSERT_TRUE(Eventually([&] { return !Words().empty(); }));
        program.Signal(signal);
        EXPECT_EQ(program.Finish().code, 128 + signal);
        EXPECT_THAT(Words(), ElementsAre("down", "up"));
        // The command held the lock.
        EXPECT_EQ(RunProgram({"flock", "-w", "10", Told(), "true"}).code, 0);
    }
}

TEST_F(CInterruptedCheckTest, OutputWithoutAReaderEndsTheCheckAndRestoresTheNetwork) {
    std::vector<std::string> command = Command();
    command.insert(command.begin(), {"bash", "-c", "set -o pipefail; \"$@\" | true", "bash"});
    const Result result = RunProgram(command);
    EXPECT_EQ(result.code, 1);
    EXPECT_EQ(result.err, "tallyra-check-platform: writing the output failed\n");
    EXPECT_THAT(Words(), ElementsAre("up"));
}

/// Runs the check with a limit of the shell's ulimit.
class CLimitedCheckTest : public CPlatformCheckTest {
  protected:
    void SetUp() override {
        if (kWithSanitizersAllocator) {
            GTEST_SKIP() << "the sanitizer needs the whole address space";
        }
    }

    static Result Check(const std::string& limit, const std::vector<std::string>& arguments) {
        std::vector<std::string> all{"bash", "-c", "ulimit " + limit + " && exec \"$@\"", "bash",
                                     CHECK_PLATFORM};
        all.insert(all.end(), arguments.begin(), arguments.end());
        return RunProgram(all);
    }
};

// No stack of this size, in KiB, fits into the address space.
TEST_F(CLimitedCheckTest, CheckThatGetsNoThreadIsNotTried) {
    const Result result = Check("-s 200000000000", {LINUX_PLATFORM});
    EXPECT_THAT(LinesWith(result.out, kNotTried + "logsvc.h: "),
                ElementsAre(HasSubstr("do not mix: no thread can be started: ")));
    EXPECT_THAT(LinesWith(result.out, kNotTried + "regdb.h: several"),
                ElementsAre(HasSubstr(" at once: no thread can be started: ")));
}

TEST_F(CLimitedCheckTest, CheckThatFailsItselfIsNotTried) {
    const Result result =
        Check("-v 200000", {LINUX_PLATFORM, "--read-log", "head -c 300M /dev/zero"});
    EXPECT_THAT(LinesWith(result.out, kNotTried + "logsvc.h: logsvc_print formats"),
                ElementsAre(HasSubstr(" printf does: the check failed: std::bad_alloc")));
}

TEST_F(CPlatformCheckTest, LibraryThatCannotBeLoadedIsBroken) {
    const Result result = Check({"libno-such-platform.so"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, AllOf(HasSubstr(kBroken + "libraries: they can be loaded: "
                                                      "libno-such-platform.so: cannot open"),
                                  HasSubstr("0 hold, 1 broken, 0 not tried\n")));
}

// The loader names the library, here with a character that writes from right to left.
TEST_F(CPlatformCheckTest, NothingThatALibraryPrintsCanReorderALine) {
    EXPECT_THAT(Check({"libno-such\u202e.so\x7f\n"}).out,
                HasSubstr("they can be loaded: libno-such???.so??: cannot open"));
}

TEST_F(CPlatformCheckTest, WrongArgumentsAreRefused) {
    EXPECT_EQ(Check({}).code, 2);
    EXPECT_EQ(Check({LINUX_PLATFORM, "--timeout", "0"}).code, 2);
    EXPECT_EQ(Check({LINUX_PLATFORM, "--unknown"}).code, 2);
}

class CBrokenPlatformTest : public CTableTest<CPlatformCheckTest, const char*> {};

const Named<const char*> kPlatforms[] = {
    {"AcceptsNullMonitor",
     "connection.h: NULL is an error: connection_set_network_monitor_cb returned 0 for NULL "
     "instead of -1"},
    {"AcceptsNullStrength",
     "wifi_manager.h: NULL in place of an access point or a strength is an error: "
     "wifi_manager_ap_get_rssi returned 0 for NULL instead of -1"},
    {"AcceptsNullString",
     "appcat.h: NULL in place of a string is an error: appcat_appinfo_get_pkgid returned 0 for "
     "NULL instead of -1"},
    {"AcceptsNullWatch",
     "regdb.h: NULL is an error: regdb_ignore_key_changed returned 0 for NULL instead of -1"},
    {"AlwaysConnected",
     "connection.h: a monitor reports GATEWAY, with 0 when the network is up and _NO_CONNECTION "
     "when it is down: the callback got 0 after the network had gone down"},
    {"CallbackOnCallersThread",
     "regdb.h: a change calls back, on a thread of the platform and without a main loop: the "
     "callback ran on the thread that registered it"},
    {"CrashesOnNull",
     "connection.h: NULL is an error: connection_get_type crashed: Segmentation fault"},
    {"CrashesOnNullResult",
     "connection.h: NULL is an error: connection_get_type crashed: Segmentation fault"},
    {"DestroyDoesNotWait",
     "connection.h: connection_destroy waits for the running callback: connection_destroy returned "
     "while the callback was running"},
    {"HandleOnFailure",
     "wifi_manager.h: no device or no connection is an error and leaves the handle as it is: "
     "wifi_manager_initialize failed and changed the handle"},
    {"LateCallback",
     "regdb.h: no callback starts after regdb_ignore_key_changed has returned: a callback started "
     "after regdb_ignore_key_changed had returned"},
    {"LogWithoutFormat",
     "logsvc.h: logsvc_print formats as printf does: the log has \"tallyra-check-platform: %s(%d) "
     "> "
     "%u|%4d|%-4s|%c|%.2f|%llu|%%\" instead of \"tallyra-check-platform: PID(42) > 7|   7|ab  "
     "|c|1.50|18446744073709551615|%\""},
    {"MissingFunction",
     "wifi_manager.h: every function can be found: missing: wifi_manager_ap_get_rssi"},
    {"MissingKeyIsZero",
     "regdb.h: a missing key is an error and leaves the value as it is: regdb_get_bool failed and "
     "changed the value"},
    {"NeverReturns",
     "appcat.h: an unknown application or package is an error and leaves the handle as it is: "
     "appcat_pkginfo_get_pkginfo did not return within 5 s"},
    {"OneThreadOnly", "regdb.h: several threads may call at once: regdb_get_bool crashed: Aborted"},
    {"RemovalDoesNotWait",
     "regdb.h: regdb_ignore_key_changed waits for the running callback: regdb_ignore_key_changed "
     "returned while the callback was running"},
    {"SharedStrings",
     "appcat.h: strings stay valid until their handle is destroyed: the string of "
     "appcat_appinfo_get_pkgid changed from \"org.example.tv\" to \"??????????????\" while its "
     "handle existed"},
    {"Throws",
     "regdb.h: removing what is not registered is an error: regdb_ignore_key_changed crashed: "
     "Aborted"},
    {"UnsetDeadlocks",
     "connection.h: a callback may unset its monitor: connection_unset_network_monitor_cb did not "
     "return within 5 s"},
    {"WrongCodeForMonitor",
     "connection.h: a handle has at most one monitor: connection_set_network_monitor_cb returned "
     "-5 "
     "for a second monitor instead of -3"},
    {"WrongCodeForNull",
     "appcat.h: NULL is an error: appcat_pkginfo_destroy_pkginfo returned -2 for NULL instead of "
     "-1"},
    {"WrongCodeForWatch",
     "regdb.h: removing what is not registered is an error: regdb_ignore_key_changed returned -1 "
     "for a callback that is not registered instead of -7"},
    {"WrongCodeForWifi",
     "wifi_manager.h: no device or no connection is an error and leaves the handle as it is: "
     "wifi_manager_initialize returned -6 without Wi-Fi instead of -2"},
    {"WrongCodeInCallback",
     "connection.h: a monitor reports GATEWAY, with 0 when the network is up and _NO_CONNECTION "
     "when it is down: the callback got -6 after the network had gone down"},
};

INSTANTIATE_TEST_SUITE_P(Each, CBrokenPlatformTest, testing::ValuesIn(kPlatforms), kByName);

TEST_P(CBrokenPlatformTest, IsFoundWithExactlyItsComplaint) {
    if (Unshare().empty()) {
        GTEST_SKIP() << "no right to create a network namespace";
    }
    const Result result =
        CheckAll(std::string(BROKEN_PLATFORMS "/libbroken-") + GetParam().name + ".so");
    EXPECT_EQ(result.code, 1) << result.err;
    std::vector<std::string> broken = LinesWith(result.out, kBroken);
    ASSERT_EQ(broken.size(), 1U) << result.out;
    const std::string line =
        std::regex_replace(broken[0], std::regex(": [0-9]+\\(42\\)"), ": PID(42)");
    EXPECT_EQ(line, kBroken + Case());
}

}  // namespace
