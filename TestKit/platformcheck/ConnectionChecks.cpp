// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "CallbackChecks.h"

#include <array>

namespace {

constexpr std::initializer_list<int> kInvalid = {CONNECTION_ERROR_INVALID_PARAMETER};
constexpr const char* kGateway = "GATEWAY";

connection_h Create(CTrial& trial) {
    connection_h connection = nullptr;
    trial.Succeed(trial.Functions().connection_create, &connection);
    trial.Expect(connection != nullptr, "connection_create gave a NULL handle");
    return connection;
}

int TypeOf(CTrial& trial, connection_h connection) {
    int type = -1;
    trial.Succeed(trial.Functions().connection_get_type, connection, &type);
    trial.Expect(type >= CONNECTION_TYPE_DISCONNECTED && type <= CONNECTION_TYPE_ETHERNET,
                 "connection_get_type gave " + std::to_string(type));
    return type;
}

bool HasGateway(CTrial& trial) {
    bool connected = false;
    trial.Succeed(trial.Functions().connection_profile_check_default_gateway, &connected);
    return connected;
}

/// The last report of a monitor.
struct Report {
    int result = 0;
    std::string name;
};

struct Monitor {
    CProbe* pProbe = nullptr;
    std::mutex mutex;
    Report report;
};

Monitor& MonitorOf(std::size_t which) {
    static std::array<Monitor, 2> monitors;
    return monitors[which];
}

template <std::size_t kWhich>
void OnNetwork(connection_error_e result, char* name, void* pUserData) {
    Monitor& monitor = MonitorOf(kWhich);
    {
        const std::lock_guard lock(monitor.mutex);
        monitor.report = {result, name == nullptr ? "NULL" : name};
    }
    monitor.pProbe->Enter(pUserData);
}

void OnNothing(connection_error_e /*result*/, char* /*name*/, void* /*pUserData*/) {}

constexpr std::array<connection_network_monitor_cb, 2> kCallbacks = {&OnNetwork<0>, &OnNetwork<1>};

/// Monitors of the network, which is down at first.
class CNetworkSource : public ICallbackSource {
  public:
    explicit CNetworkSource(CTrial& trial) : m_Trial(trial) {
        m_Trial.SetNetwork(false);
        m_Connections = {Create(trial), Create(trial)};
    }

    void Register(std::size_t which, CProbe& probe) override {
        MonitorOf(which).pProbe = &probe;
        m_Trial.Succeed(m_Trial.Functions().connection_set_network_monitor_cb, m_Connections[which],
                        kCallbacks[which], &probe);
    }
    int Remove(std::size_t which) override {
        return m_Trial.Functions().connection_unset_network_monitor_cb(m_Connections[which]);
    }
    const char* NameOfRemoval() const override { return "connection_unset_network_monitor_cb"; }
    void Change() override {
        m_bUp = !m_bUp;
        m_Trial.SetNetwork(m_bUp);
    }
    const char* NameOfChange() const override { return "the network"; }

    connection_h Connection() const { return m_Connections[0]; }

  private:
    CTrial& m_Trial;
    std::array<connection_h, 2> m_Connections{};
    bool m_bUp = false;
};

void TryState(CTrial& trial) {
    auto* connection = Create(trial);
    const int type = TypeOf(trial, connection);
    const bool connected = HasGateway(trial);
    trial.Expect(connected == (type != CONNECTION_TYPE_DISCONNECTED),
                 std::string("connection_profile_check_default_gateway gave ") +
                     (connected ? "true" : "false") + ", but connection_get_type gave " +
                     std::to_string(type));
    trial.Succeed(trial.Functions().connection_destroy, connection);
}

void TryNull(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    int type = 0;
    const std::string why = " for NULL";
    trial.Fail(why, kInvalid, platform.connection_create, nullptr);
    trial.Fail(why, kInvalid, platform.connection_destroy, nullptr);
    trial.Fail(why, kInvalid, platform.connection_set_network_monitor_cb, nullptr, &OnNothing,
               nullptr);
    trial.Fail(why, kInvalid, platform.connection_unset_network_monitor_cb, nullptr);
    trial.Fail(why, kInvalid, platform.connection_get_type, nullptr, &type);
    trial.Fail(why, kInvalid, platform.connection_profile_check_default_gateway, nullptr);
    auto* connection = Create(trial);
    trial.Fail(why, kInvalid, platform.connection_get_type, connection, nullptr);
    trial.Fail(why, kInvalid, platform.connection_set_network_monitor_cb, connection, nullptr,
               nullptr);
    trial.Succeed(platform.connection_destroy, connection);
}

void TryOneMonitor(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    auto* connection = Create(trial);
    trial.Fail(" without a monitor", {CONNECTION_ERROR_NOT_REGISTERED},
               platform.connection_unset_network_monitor_cb, connection);
    trial.Succeed(platform.connection_set_network_monitor_cb, connection, &OnNothing, nullptr);
    trial.Fail(" for a second monitor", {CONNECTION_ERROR_ALREADY_REGISTERED},
               platform.connection_set_network_monitor_cb, connection, &OnNothing, nullptr);
    trial.Succeed(platform.connection_unset_network_monitor_cb, connection);
    trial.Succeed(platform.connection_destroy, connection);
}

void ExpectReport(CTrial& trial, CProbe& probe, int calls, bool up) {
    trial.Expect(probe.AwaitBegun(calls, trial.Wanted().patience),
                 std::string("no callback after the network had gone ") + (up ? "up" : "down"));
    const std::lock_guard lock(MonitorOf(0).mutex);
    const Report& report = MonitorOf(0).report;
    trial.Expect(report.name == kGateway, "the callback named \"" + report.name + "\"");
    trial.Expect(report.result == (up ? CONNECTION_ERROR_NONE : CONNECTION_ERROR_NO_CONNECTION),
                 "the callback got " + std::to_string(report.result) +
                     " after the network had gone " + (up ? "up" : "down"));
}

void TryGateway(CTrial& trial) {
    CNetworkSource source(trial);
    CProbe probe;
    source.Register(0, probe);
    source.Change();
    ExpectReport(trial, probe, 1, true);
    trial.Expect(HasGateway(trial) && TypeOf(trial, source.Connection()) != 0,
                 "the network counts as disconnected after it had gone up");
    const int before = probe.Begun();
    source.Change();
    ExpectReport(trial, probe, before + 1, false);
    trial.Expect(!HasGateway(trial) && TypeOf(trial, source.Connection()) == 0,
                 "the network counts as connected after it had gone down");
    source.Remove(0);
}

void TryNetworkReport(CTrial& trial) {
    CNetworkSource source(trial);
    TryReport(trial, source);
}

void TryNetworkCallsInside(CTrial& trial) {
    CNetworkSource source(trial);
    TryCallsInside(trial, source, [&] {
        TypeOf(trial, source.Connection());
        HasGateway(trial);
    });
}

void TryNoNetworkReportAfterRemoval(CTrial& trial) {
    CNetworkSource source(trial);
    TryNoneAfterRemoval(trial, source);
}

void TryUnsetWaits(CTrial& trial) {
    CNetworkSource source(trial);
    TryRemovalWaits(trial, source, source.NameOfRemoval(), [&] { return source.Remove(0); });
}

void TryDestroyWaits(CTrial& trial) {
    CNetworkSource source(trial);
    TryRemovalWaits(trial, source, "connection_destroy",
                    [&] { return trial.Functions().connection_destroy(source.Connection()); });
}

void TryUnsetInside(CTrial& trial) {
    CNetworkSource source(trial);
    TryRemovalInside(trial, source, source.NameOfRemoval(), [&] { return source.Remove(0); });
}

void TryDestroyInside(CTrial& trial) {
    CNetworkSource source(trial);
    TryRemovalInside(trial, source, "connection_destroy",
                     [&] { return trial.Functions().connection_destroy(source.Connection()); });
}

void TryThreads(CTrial& trial) {
    auto* shared = Create(trial);
    trial.AtOnce([&] {
        PlatformFunctions& platform = trial.Functions();
        auto* connection = Create(trial);
        trial.Succeed(platform.connection_set_network_monitor_cb, connection, &OnNothing, nullptr);
        TypeOf(trial, shared);
        HasGateway(trial);
        trial.Succeed(platform.connection_unset_network_monitor_cb, connection);
        trial.Succeed(platform.connection_destroy, connection);
    });
}

}  // namespace

std::vector<Check> ConnectionChecks() {
    return {
        {"connection.h", "type and default gateway agree, and a handle can be destroyed",
         &TryState},
        {"connection.h", "NULL is an error", &TryNull},
        {"connection.h", "a handle has at most one monitor", &TryOneMonitor},
        {"connection.h", "a change calls back, on a thread of the platform and without a main loop",
         &TryNetworkReport},
        {"connection.h",
         "a monitor reports GATEWAY, with 0 when the network is up and _NO_CONNECTION when it is "
         "down",
         &TryGateway},
        {"connection.h", "a callback may call the platform", &TryNetworkCallsInside},
        {"connection.h",
         "no callback starts after connection_unset_network_monitor_cb has returned",
         &TryNoNetworkReportAfterRemoval},
        {"connection.h", "connection_unset_network_monitor_cb waits for the running callback",
         &TryUnsetWaits},
        {"connection.h", "connection_destroy waits for the running callback", &TryDestroyWaits},
        {"connection.h", "a callback may unset its monitor", &TryUnsetInside},
        {"connection.h", "a callback may destroy its handle", &TryDestroyInside},
        {"connection.h", "several threads may call at once, also with one handle", &TryThreads},
    };
}
