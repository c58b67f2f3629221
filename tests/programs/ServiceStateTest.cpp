// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"
#include "Program.h"
#include "TYWallClock.h"

#include <nlohmann/json.hpp>

#include <sys/socket.h>
#include <sys/un.h>

namespace {

using nlohmann::json;
using testing::HasSubstr;

/// The command status beside a service on a bus.
class DaemonStatus : public CDaemonTest {
  protected:
    void SetUp() override { const CTYStore creates(m_File); }

    Result Run(const std::string& address, const std::string& format) const {
        return RunProgram(
            {TALLYRA_COMMAND, "status", "--db", m_File, "--address", address, "--format", format});
    }
    /// @return the row with this "what"; null if there is none
    json RowOf(const std::string& what) const { return RowOn(m_Bus.Address(), what); }
    json RowOn(const std::string& address, const std::string& what, int code = 0) const {
        const Result result = Run(address, "json");
        EXPECT_EQ(result.code, code) << result.err;
        for (const auto& row : json::parse(result.out)) {
            if (row.at("what") == what) {
                return row;
            }
        }
        return nullptr;
    }
    json ValueOf(const std::string& what) const { return RowOf(what).at("value"); }
};

TEST_F(DaemonStatus, TellsTheProcessOfTheServiceAndItsStart) {
    const std::int64_t before = WallClockNow() / 1'000'000'000;
    Start();
    EXPECT_EQ(ValueOf("service"), "running");
    EXPECT_EQ(ValueOf("service_process"), m_pDaemon->Pid());
    EXPECT_EQ(ValueOf("service_bus"), m_Bus.Address());
    const std::string since = ValueOf("service_since");
    const Result seconds = RunProgram({"date", "+%s", "-d", since});
    EXPECT_NEAR(std::stod(seconds.out), static_cast<double>(before), 5) << since;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(ValueOf("service_since"), since);
    }
    m_pDaemon->Terminate();
    EXPECT_EQ(ValueOf("service"), "not running");
    EXPECT_EQ(RowOf("service_process"), nullptr);
}

TEST_F(DaemonStatus, TellsTheBoundsOfTheRunningService) {
    Start({"--max-size", "7", "--max-age=3"});
    EXPECT_EQ(RowOf("bound_bytes"),
              json({{"what", "bound_bytes"}, {"of", "service"}, {"value", 7 << 20}}));
    EXPECT_EQ(RowOf("bound_days"), json({{"what", "bound_days"}, {"of", "service"}, {"value", 3}}));
}

TEST_F(DaemonStatus, TellsTheDefaultBoundsAsSuchIfNoServiceUsesTheStore) {
    const json expected = {{"what", "bound_bytes"}, {"of", "default"}, {"value", 512 << 20}};
    EXPECT_EQ(RowOf("bound_bytes"), expected);
    EXPECT_EQ(RowOf("bound_days").at("value"), 30);
    StartOn(m_Folder.Path() / "other.db", {"--max-size", "7"});
    EXPECT_EQ(RowOf("bound_bytes"), expected);
    EXPECT_EQ(ValueOf("service"),
              "running, with another store: " + (m_Folder.Path() / "other.db").string());
}

TEST_F(DaemonStatus, DescribesTheServiceOfAStoreThatCannotBeRead) {
    Start();
    Execute("PRAGMA user_version = 99");
    EXPECT_EQ(RowOn(m_Bus.Address(), "service", 1).at("value"), "running");
    EXPECT_EQ(RowOn(m_Bus.Address(), "store", 1).at("value"), m_File.string());
    EXPECT_EQ(RowOn(m_Bus.Address(), "records", 1), nullptr);
    const std::string reason = RowOn(m_Bus.Address(), "store_error", 1).at("value");
    EXPECT_THAT(reason, HasSubstr("99"));
    EXPECT_EQ(Run(m_Bus.Address(), "table").err, "tallyra: " + reason + "\n");
}

TEST_F(DaemonStatus, DescribesTheServiceWithoutAStore) {
    const Result result = RunProgram({TALLYRA_COMMAND, "status", "--db", "/nonexistent/x.db",
                                      "--address", m_Bus.Address(), "--format", "csv"});
    EXPECT_EQ(result.code, 1);
    EXPECT_THAT(result.out, HasSubstr("service,not running,\r\n"));
    EXPECT_THAT(result.out, HasSubstr("disk_free_bytes,,\r\n"));
    EXPECT_THAT(result.out, HasSubstr("store_error,\"no store at /nonexistent/x.db"));
}

TEST_F(DaemonStatus, HasUnitsInItsTableAndCutsNothing) {
    const std::string address = "unix:path=/" + std::string(100, 'x');
    const std::string table = Run(address, "table").out;
    EXPECT_THAT(table, HasSubstr("\nbound_bytes            512.0 MiB"));
    EXPECT_THAT(table, HasSubstr("\nservice_bus            " + address + "\n"));
}

json QueriesRow(const char* pOf, const char* pValue) {
    return {{"what", "url_queries"}, {"of", pOf}, {"value", pValue}};
}

TEST_F(DaemonStatus, TellsWhetherTheServiceKeepsTheQueriesOfUrls) {
    EXPECT_EQ(RowOf("url_queries"), QueriesRow("default", "redacted"));
    Start({"--keep-queries"});
    EXPECT_EQ(RowOf("url_queries"), QueriesRow("service", "kept"));
    m_pDaemon->Terminate();
    Start();
    EXPECT_EQ(RowOf("url_queries"), QueriesRow("service", "redacted"));
}

TEST_F(DaemonStatus, GoesOnWithoutABus) {
    EXPECT_THAT(RowOn("unix:path=/nowhere", "service").at("value").get<std::string>(),
                HasSubstr("unknown, the bus does not answer: "));
    EXPECT_EQ(RowOn("unix:path=/nowhere", "service_bus").at("value"), "unix:path=/nowhere");
    EXPECT_EQ(RowOn("nonsense", "records").at("value"), 0);
}

TEST_F(DaemonStatus, DoesNotWaitForASilentBus) {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un name = {AF_UNIX, {}};
    const std::string path = m_Folder.Path() / "bus";
    path.copy(name.sun_path, sizeof(name.sun_path) - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof(name)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    EXPECT_THAT(RowOn("unix:path=" + path, "service").at("value").get<std::string>(),
                HasSubstr("does not answer"));
    close(listener);
}

TEST_F(DaemonStatus, AsksTheSystemBusByDefault) {
    Start();
    const Result result =
        RunProgram({"env", "DBUS_SYSTEM_BUS_ADDRESS=" + m_Bus.Address(), TALLYRA_COMMAND, "status",
                    "--db", m_File, "--format", "csv"});
    EXPECT_THAT(result.out, HasSubstr("service,running,\r\n"));
}

TEST_F(DaemonStatus, ListsThePoliciesInForce) {
    EXPECT_EQ(RowOf("policy"), json({{"what", "policy"}, {"of", "*"}, {"value", "allowed"}}));
    Execute("INSERT INTO policies VALUES('*', 0, 0, 0), ('org.a', 1, 0, 1)");
    Execute("INSERT INTO bindings VALUES('org.a', 1000, 0), ('org.a', 7, 0)");
    const std::string out = Run(m_Bus.Address(), "csv").out;
    EXPECT_THAT(out, HasSubstr("policy,refused,*\r\n"));
    EXPECT_THAT(out, HasSubstr("policy,\"allowed, only from users 7 1000, with the queries of "
                               "URLs\",org.a\r\n"));
}

TEST_F(DaemonStatus, TellsTheFreeDisk) {
    const auto space = std::filesystem::space(m_File);
    EXPECT_NEAR(ValueOf("disk_free_bytes").get<double>(), static_cast<double>(space.available),
                1 << 30);
    EXPECT_GT(ValueOf("disk_free_bytes"), 0);
}

}  // namespace
