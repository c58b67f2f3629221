// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildScenario.h"
#include "TemporaryFolder.h"
#include "TestPlatformFixture.h"

using testing::HasSubstr;

namespace {

using Results = std::map<std::string, int>;

void Ignore(struct _keynode_t* /*node*/, void* /*none*/) {}
void IgnoreNetwork(connection_error_e /*result*/, char* /*name*/, void* /*none*/) {}

void DriveSettings(Results& results) {
    int value = 0;
    results["logsvc_print"] = logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "text");
    results["regdb_get_bool"] = regdb_get_bool(kKey, &value);
    results["regdb_notify_key_changed"] = regdb_notify_key_changed(kKey, &Ignore, nullptr);
    results["regdb_ignore_key_changed"] = regdb_ignore_key_changed(kKey, &Ignore);
}

void DriveCatalogue(Results& results) {
    // Handles of earlier calls, in case that the one under test fails.
    appcat_appinfo_h app = nullptr;
    appcat_pkginfo_h package = nullptr;
    char* pText = nullptr;
    results["appcat_appinfo_get_usr_appinfo"] =
        appcat_appinfo_get_usr_appinfo("org.example.app", getuid(), &app);
    results["appcat_appinfo_get_pkgid"] = appcat_appinfo_get_pkgid(app, &pText);
    results["appcat_appinfo_destroy_appinfo"] = appcat_appinfo_destroy_appinfo(app);
    results["appcat_pkginfo_get_pkginfo"] = appcat_pkginfo_get_pkginfo("org.example.app", &package);
    results["appcat_pkginfo_get_version"] = appcat_pkginfo_get_version(package, &pText);
    results["appcat_pkginfo_destroy_pkginfo"] = appcat_pkginfo_destroy_pkginfo(package);
}

void DriveNetwork(Results& results) {
    connection_h connection = nullptr;
    int type = 0;
    bool connected = false;
    results["connection_create"] = connection_create(&connection);
    results["connection_set_network_monitor_cb"] =
        connection_set_network_monitor_cb(connection, &IgnoreNetwork, nullptr);
    results["connection_get_type"] = connection_get_type(connection, &type);
    results["connection_unset_network_monitor_cb"] =
        connection_unset_network_monitor_cb(connection);
    results["connection_destroy"] = connection_destroy(connection);
    results["connection_profile_check_default_gateway"] =
        connection_profile_check_default_gateway(&connected);
}

void DriveWifi(Results& results) {
    wifi_manager_h wifi = nullptr;
    wifi_manager_ap_h ap = nullptr;
    int rssi = 0;
    results["wifi_manager_initialize"] = wifi_manager_initialize(&wifi);
    results["wifi_manager_get_connected_ap"] = wifi_manager_get_connected_ap(wifi, &ap);
    results["wifi_manager_ap_get_rssi"] = wifi_manager_ap_get_rssi(ap, &rssi);
    results["wifi_manager_ap_destroy"] = wifi_manager_ap_destroy(ap);
    results["wifi_manager_deinitialize"] = wifi_manager_deinitialize(wifi);
}

/// Calls each function once, as on a device with Wi-Fi. @return what they return
Results Drive() {
    Results results;
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    DriveSettings(results);
    DriveCatalogue(results);
    DriveNetwork(results);
    DriveWifi(results);
    return results;
}

std::string VersionOf(const char* pApplication) {
    appcat_pkginfo_h package = nullptr;
    char* pVersion = nullptr;
    const int found = appcat_pkginfo_get_pkginfo(pApplication, &package);
    const int result = found == 0 ? appcat_pkginfo_get_version(package, &pVersion) : found;
    std::string version = result == 0 ? pVersion : "error " + std::to_string(result);
    if (found == 0) {
        appcat_pkginfo_destroy_pkginfo(package);
    }
    return version;
}

int ValueOf(const char* pKey) {
    int value = INT_MIN;
    regdb_get_bool(pKey, &value);
    return value;
}

int NetworkType() {
    connection_h connection = nullptr;
    int type = -1;
    connection_create(&connection);
    connection_get_type(connection, &type);
    connection_destroy(connection);
    return type;
}

bool HasGateway() {
    bool connected = false;
    EXPECT_EQ(connection_profile_check_default_gateway(&connected), 0);
    return connected;
}

/// @return the signal strength, or the error of the call that fails
int Signal() {
    wifi_manager_h wifi = nullptr;
    wifi_manager_ap_h ap = nullptr;
    wifi_manager_initialize(&wifi);
    int rssi = 0;
    int result = wifi_manager_get_connected_ap(wifi, &ap);
    if (result == 0) {
        result = wifi_manager_ap_get_rssi(ap, &rssi);
        wifi_manager_ap_destroy(ap);
    }
    wifi_manager_deinitialize(wifi);
    return result == 0 ? rssi : result;
}

tallyra_testplatform_line LineAt(std::size_t index) {
    tallyra_testplatform_line line{-1, -1, "none", "none"};
    tallyra_testplatform_log_line(index, &line);
    return line;
}

TEST_F(CTestPlatformTest, EverythingWorksInTheInitialState) {
    EXPECT_EQ(ValueOf(kKey), 1);
    EXPECT_EQ(NetworkType(), CONNECTION_TYPE_ETHERNET);
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(VersionOf("org.example.app"), "1.0.0");
    for (const auto& [name, result] : Drive()) {
        EXPECT_EQ(result, 0) << name;
        EXPECT_GE(tallyra_testplatform_calls(name.c_str()), 1) << name;
    }
}

TEST_F(CTestPlatformTest, EachFunctionCanFailAndOnlyThatOne) {
    for (const auto& [failing, ignored] : Drive()) {
        // Without a handle, later calls get an invalid parameter.
        const bool isMaker =
            failing == "appcat_appinfo_get_usr_appinfo" ||
            failing == "appcat_pkginfo_get_pkginfo" || failing == "connection_create" ||
            failing == "wifi_manager_initialize" || failing == "wifi_manager_get_connected_ap";
        ASSERT_EQ(tallyra_testplatform_fail(failing.c_str(), 0, -77), 0);
        for (const auto& [name, result] : Drive()) {
            const bool isRefused =
                name == failing || (isMaker && result == -1) ||
                (failing == "regdb_notify_key_changed" && name == "regdb_ignore_key_changed") ||
                (failing == "connection_set_network_monitor_cb" &&
                 name == "connection_unset_network_monitor_cb");
            EXPECT_EQ(result != 0, isRefused) << name << " while " << failing << " fails";
            EXPECT_EQ(result == -77, name == failing) << name << " while " << failing << " fails";
        }
        tallyra_testplatform_fail(failing.c_str(), 0, 0);
    }
}

TEST_F(CTestPlatformTest, FailsOnlyTheNthCallFromNowOn) {
    int value = 0;
    regdb_get_bool(kKey, &value);
    tallyra_testplatform_fail("regdb_get_bool", 3, REGDB_ERROR_UNREADABLE);
    EXPECT_EQ(regdb_get_bool(kKey, &value), 0);
    EXPECT_EQ(regdb_get_bool(kKey, &value), 0);
    EXPECT_EQ(regdb_get_bool(kKey, &value), REGDB_ERROR_UNREADABLE);
    EXPECT_EQ(regdb_get_bool(kKey, &value), 0);
    EXPECT_EQ(tallyra_testplatform_calls("regdb_get_bool"), 5);
}

TEST_F(CTestPlatformTest, ResetRestoresTheInitialState) {
    tallyra_testplatform_set_key(kKey, 0);
    tallyra_testplatform_set_network(CONNECTION_TYPE_DISCONNECTED);
    tallyra_testplatform_set_rssi(-90);
    tallyra_testplatform_set_version(nullptr, "9");
    tallyra_testplatform_fail("logsvc_print", 0, -1);
    Drive();
    tallyra_testplatform_reset();
    EXPECT_EQ(tallyra_testplatform_log_count(), 0U);
    EXPECT_EQ(tallyra_testplatform_calls("logsvc_print"), 0);
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "text"), 0);
    EXPECT_EQ(ValueOf(kKey), 1);
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(VersionOf("org.example.app"), "1.0.0");
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    EXPECT_EQ(Signal(), -55);
}

TEST_F(CTestPlatformTest, AKeyHasTheValueThatIsSetOrNone) {
    int value = 5;
    tallyra_testplatform_set_key("db/player/volume", -7);
    EXPECT_EQ(ValueOf("db/player/volume"), -7);
    EXPECT_EQ(tallyra_testplatform_remove_key("db/player/volume"), 0);
    EXPECT_EQ(regdb_get_bool("db/player/volume", &value), REGDB_ERROR_NO_KEY);
    EXPECT_EQ(value, 5);
    EXPECT_EQ(ValueOf(kKey), 1);
}

TEST_F(CTestPlatformTest, AnAccessPointIsConnectedOnlyOnWifi) {
    tallyra_testplatform_set_rssi(-71);
    EXPECT_EQ(Signal(), WIFI_MANAGER_ERROR_NO_CONNECTION);
    tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
    EXPECT_EQ(Signal(), -71);
}

TEST_F(CTestPlatformTest, TheGatewayGoesWithTheNetworkUnlessATestSaysOtherwise) {
    tallyra_testplatform_set_network(CONNECTION_TYPE_DISCONNECTED);
    EXPECT_FALSE(HasGateway());
    tallyra_testplatform_set_gateway(1);
    EXPECT_TRUE(HasGateway());
    EXPECT_EQ(NetworkType(), CONNECTION_TYPE_DISCONNECTED);
}

TEST_F(CTestPlatformTest, EachApplicationMayHaveAVersionOfItsOwn) {
    tallyra_testplatform_set_version("org.example.a", "2.4.1");
    tallyra_testplatform_set_version("org.example.b", "");
    tallyra_testplatform_set_version(nullptr, nullptr);
    EXPECT_EQ(VersionOf("org.example.a"), "2.4.1");
    EXPECT_EQ(VersionOf("org.example.b"), "error " + std::to_string(APPCAT_ERROR_NO_VERSION));
    EXPECT_EQ(VersionOf("org.example.c"), "error " + std::to_string(APPCAT_ERROR_NOT_FOUND));
}

TEST_F(CTestPlatformTest, KeepsLogLinesInFull) {
    const std::string text(5000, 'x');
    errno = EDOM;
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "%s %d\n", text.c_str(), 7), 0);
    EXPECT_EQ(errno, EDOM);
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, LOGSVC_DEBUG, nullptr, "second"), 0);
    EXPECT_EQ(tallyra_testplatform_log_count(), 2U);
    EXPECT_EQ(LineAt(0).buffer, LOGSVC_MAIN);
    EXPECT_EQ(LineAt(0).priority, LOGSVC_ERROR);
    EXPECT_STREQ(LineAt(0).tag, "TAG");
    EXPECT_EQ(LineAt(0).text, text + " 7");
    EXPECT_STREQ(LineAt(1).tag, "");
    EXPECT_STREQ(LineAt(2).text, "none");
}

TEST_F(CTestPlatformTest, WaitsForALogLine) {
    logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "first line");
    EXPECT_EQ(tallyra_testplatform_wait_for_log("line", 0, 0), 0);
    EXPECT_EQ(tallyra_testplatform_wait_for_log("line", 1, 1), TALLYRA_TESTPLATFORM_ERROR_TIMEOUT);
    auto waiting = std::async(std::launch::async, [] {
        return tallyra_testplatform_wait_for_log("line", 1, kPatienceMs);
    });
    logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "another");
    logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "second line");
    EXPECT_EQ(waiting.get(), 2);
}

TEST_F(CTestPlatformTest, RefusesInvalidParameters) {
    constexpr int kInvalid = TALLYRA_TESTPLATFORM_ERROR_INVALID_PARAMETER;
    for (const char* pKey : {"", "name", "/name", "db/", "db/#a", "db/a=b", "db/ a", "db/a ",
                             "d[b/a", "db/a\n", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(tallyra_testplatform_set_key(pKey, 1), kInvalid);
        EXPECT_EQ(tallyra_testplatform_remove_key(pKey), kInvalid);
        EXPECT_EQ(regdb_notify_key_changed(pKey, &Ignore, nullptr), REGDB_ERROR_INVALID_PARAMETER);
    }
    EXPECT_EQ(tallyra_testplatform_set_network(4), kInvalid);
    EXPECT_EQ(tallyra_testplatform_set_network(-1), kInvalid);
    EXPECT_EQ(tallyra_testplatform_report_network(0, nullptr), kInvalid);
    EXPECT_EQ(tallyra_testplatform_set_version("", "1"), kInvalid);
    EXPECT_EQ(tallyra_testplatform_set_version("a/b", "1"), kInvalid);
    EXPECT_EQ(tallyra_testplatform_fail("regdb_get", 0, -1), kInvalid);
    EXPECT_EQ(tallyra_testplatform_fail(nullptr, 0, -1), kInvalid);
    EXPECT_EQ(tallyra_testplatform_calls("regdb_get"), -1);
    EXPECT_EQ(tallyra_testplatform_log_line(0, nullptr), kInvalid);
    EXPECT_EQ(tallyra_testplatform_wait_for_log(nullptr, 0, 0), kInvalid);
}

TEST_F(CTestPlatformTest, TheLogRefusesAnUnknownBufferOrPriority) {
    // The compiler would check a direct call.
    int (*const pPrint)(int, int, const char*, const char*, ...) = &logsvc_print;
    EXPECT_EQ(logsvc_print(1, LOGSVC_INFO, "TAG", "text"), -EINVAL);
    EXPECT_EQ(logsvc_print(LOGSVC_MAIN, 5, "TAG", "text"), -EINVAL);
    EXPECT_EQ(pPrint(LOGSVC_MAIN, LOGSVC_INFO, "TAG", nullptr), -EINVAL);
    EXPECT_EQ(tallyra_testplatform_log_count(), 0U);
}

// A forked child reads the environment again.
TEST_F(CTestPlatformTest, BeginsAsTheEnvironmentSays) {
    const Outcome outcome = RunForked([] {
        setenv("TALLYRA_TESTPLATFORM_KEY", "0", 1);
        setenv("TALLYRA_TESTPLATFORM_NETWORK", "wifi", 1);
        setenv("TALLYRA_TESTPLATFORM_RSSI", "-80", 1);
        setenv("TALLYRA_TESTPLATFORM_VERSION", "7.1", 1);
        setenv("TALLYRA_TESTPLATFORM_FAIL", "connection_destroy=-3,logsvc_print=-4:2", 1);
        EXPECT_EQ(ValueOf(kKey), 0);
        EXPECT_EQ(NetworkType(), CONNECTION_TYPE_WIFI);
        EXPECT_EQ(Signal(), -80);
        EXPECT_EQ(VersionOf("org.example.app"), "7.1");
        EXPECT_EQ(connection_destroy(nullptr), -3);
        EXPECT_EQ(logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "1"), 0);
        EXPECT_EQ(logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "2"), -4);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(outcome.exitCode, 0);
    EXPECT_EQ(outcome.standardError, "");
}

TEST_F(CTestPlatformTest, ReportsAnEnvironmentThatMakesNoSense) {
    const std::pair<const char*, const char*> cases[] = {{"KEY", "on"},
                                                         {"KEY", ""},
                                                         {"NETWORK", "satellite"},
                                                         {"RSSI", "-80 dBm"},
                                                         {"RSSI", "99999999999"},
                                                         {"FAIL", "regdb_get_bool"},
                                                         {"FAIL", "regdb_get=1"},
                                                         {"FAIL", "regdb_get_bool=x"},
                                                         {"FAIL", "regdb_get_bool=1:"}};
    for (const auto& [pName, pValue] : cases) {
        const std::string name = std::string("TALLYRA_TESTPLATFORM_") + pName;
        const Outcome outcome = RunForked([&, pText = pValue] {
            setenv(name.c_str(), pText, 1);
            tallyra_testplatform_set_network(CONNECTION_TYPE_WIFI);
            return ValueOf(kKey) == 1 && Signal() == -55 ? 0 : 1;
        });
        EXPECT_EQ(outcome.exitCode, 0) << name << "=" << pValue;
        EXPECT_THAT(outcome.standardError, HasSubstr(name + "=" + pValue + " makes no sense"));
    }
}

TEST_F(CTestPlatformTest, AppendsItsLogToTheFileOfTheEnvironment) {
    const CTemporaryFolder folder;
    const Outcome outcome = RunForked([&] {
        setenv("TALLYRA_TESTPLATFORM_LOG", (folder.Path() / "log").c_str(), 1);
        logsvc_print(LOGSVC_MAIN, LOGSVC_INFO, "TAG", "one %d", 1);
        logsvc_print(LOGSVC_MAIN, LOGSVC_ERROR, "TAG", "two");
        return 0;
    });
    EXPECT_EQ(outcome.standardError, "");
    EXPECT_EQ(folder.Read("log"), "I/TAG: one 1\nE/TAG: two\n");
}

}  // namespace
