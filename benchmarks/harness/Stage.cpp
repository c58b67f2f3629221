// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Stage.h"

#include "Eventually.h"

#include <cstdlib>
#include <cstring>

std::atomic<std::int64_t> CPlayer::s_nCaused = 0;
std::atomic<std::int64_t> CPlayer::s_nForeign = 0;

namespace {

// Only an image of the right length is a record.
std::int64_t CountRecords(DBusMessage* pCall) {
    DBusMessageIter iterator;
    dbus_message_iter_init(pCall, &iterator);
    std::int64_t records = 0;
    while (dbus_message_iter_next(&iterator) != 0) {
        if (dbus_message_iter_get_arg_type(&iterator) == DBUS_TYPE_ARRAY) {
            records += dbus_message_iter_get_element_count(&iterator) == kImageBytes ? 1 : 0;
        }
    }
    return records;
}

// Status 1 and result 1, a triple each.
void Accept(DBusConnection* pConnection, DBusMessage* pCall) {
    const MessagePtr reply(dbus_message_new_method_return(pCall));
    for (const dbus_int32_t value : {0, kIntType, 1, 1, kIntType, 1}) {
        dbus_message_append_args(reply.get(), DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
    }
    dbus_connection_send(pConnection, reply.get(), nullptr);
    dbus_connection_flush(pConnection);
}

// Counts after replying: a record counts once it was accepted.
void Answer(DBusConnection* pConnection, DBusMessage* pCall, CSink::Counters& counters) {
    dbus_int32_t index = 0;
    dbus_int32_t type = 0;
    const char* pFunction = nullptr;
    if (dbus_message_get_args(pCall, nullptr, DBUS_TYPE_INT32, &index, DBUS_TYPE_INT32, &type,
                              DBUS_TYPE_STRING, &pFunction, DBUS_TYPE_INVALID) == FALSE) {
        return;
    }
    const std::int64_t records = std::strcmp(pFunction, "SendData") == 0 ? CountRecords(pCall) : 0;
    Accept(pConnection, pCall);
    counters.records += records;
    counters.policies += std::strcmp(pFunction, "GetPolicyInfo") == 0 ? 1 : 0;
}

void Serve(const std::string& address, CSink::Counters& counters) {
    DBusConnection* pConnection = dbus_connection_open_private(address.c_str(), nullptr);
    if (pConnection == nullptr || dbus_bus_register(pConnection, nullptr) == 0 ||
        dbus_bus_request_name(pConnection, kServiceName, DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
            DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        throw std::runtime_error("the counting service cannot own its name");
    }
    counters.serving = true;
    while (dbus_connection_read_write(pConnection, -1) != 0) {
        while (const MessagePtr call{dbus_connection_pop_message(pConnection)}) {
            Answer(pConnection, call.get(), counters);
        }
    }
}

}  // namespace

CSink::CSink(const std::string& address)
    : m_Process([this, &address] { Serve(address, m_Counters); }) {
    Await([this] { return m_Counters.serving.load(); }, "the counting service does not start");
}

CStage::CStage() : m_Sink(m_Bus.Address()) {
    // By default the kernel adds up to 50 µs to each sleep.
    prctl(PR_SET_TIMERSLACK, 1);
    m_Bus.BecomeSystemBus();
    m_Folder.Write("settings.ini", "[db/tallyra]\nlog_on=1\n");
    m_Folder.Write("metainfo/org.example.player.metainfo.xml",
                   "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                   "<component type=\"desktop-application\">\n"
                   "  <id>org.example.player</id>\n"
                   "  <name>Player</name>\n"
                   "  <pkgname>example-player</pkgname>\n"
                   "  <releases><release version=\"2.4.1\" date=\"2026-01-01\"/></releases>\n"
                   "</component>\n");
    setenv("REGDB_FILE", (m_Folder.Path() / "settings.ini").c_str(), 1);
    setenv("XDG_DATA_HOME", m_Folder.Path().c_str(), 1);
    setenv("LOGSVC_LEVEL", "off", 1);
    setenv("LOGSVC_OUTPUT", "stderr", 1);
}

CPlayer::CPlayer(const CStage& stage) : m_Stage(stage) {
    const std::int64_t policies = stage.Sink().Count().policies;
    m_pCollector.reset(GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    Await([&] { return stage.Sink().Count().policies > policies; }, "the collector is not ready");
    std::string url = kUrl;
    CTYContentInfo content(&url, 0);
    content.SetTitle("Night Train");
    content.SetChannelID("films-1");
    content.SetGenre("Drama");
    content.SetCustomInfo("subscription=premium;region=north;device=panel-55");
    content.SetDuration(5460000);
    m_pCollector->SetContentInfo(&content);
}

void CPlayer::Begin() {
    m_pCollector->SendMediaEvent(TY_EVENT_START, 0, 0);
    Count(1);
}

void CPlayer::End() {
    m_pCollector->SendMediaEvent(TY_EVENT_STOP, 0, 0);
    Count(2);
    Note();
}

void CPlayer::Note() {
    s_nCaused += std::exchange(m_nSent, 0);
}

void CPlayer::AwaitAccepted() {
    constexpr std::chrono::milliseconds kNudgePeriod{100};
    const auto accepted = [this] { return Accepted() >= Caused(); };
    const Clock::time_point deadline = Clock::now() + kPatience;
    std::int64_t before = -1;
    while (!Eventually(accepted, kNudgePeriod)) {
        if (Clock::now() >= deadline) {
            throw std::runtime_error("the service did not get every record");
        }
        if (before == Accepted()) {
            Begin();
            End();
        }
        before = Accepted();
    }
}
