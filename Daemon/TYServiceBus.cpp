// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYServiceBus.h"

#include "TYBusNames.h"
#include "TYDbusError.h"

#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

// Problem: the bus keeps what the service has not read in one queue for all players. If the service
// reads more slowly than players send, that queue grows to a hundred megabytes: every player waits
// for all of it, and the bus refuses further calls of all players alike. The service cannot do
// anything about a call that it has not read. But storing a batch takes milliseconds, and
// sometimes, when the disk has to write, a good part of a second.
//
// Idea: a thread of its own reads the bus (see CService in ServiceMain.cpp), as much at once as has
// arrived (see CTYBusStream). So the queue of the bus stays short, and calls wait in a queue of the
// service's own, which knows who sent them.
//
// The socket between bus and service is small, so an empty socket does not mean an empty queue.
// To see the queue, the service sends a probe, a call that the bus answers itself: the answer
// arrives behind everything that was in the queue before. If it takes long, IsBehind is true, and
// the thread that stores leaves the processor to the one that reads.
//
// Replies are queued. While some wait, Polled asks for POLLOUT, and the next Read writes on.
//
// The service has to ask the bus driver for the credentials of a new peer, and blocks until the
// driver answers. On the main connection that answer would queue behind every message that players
// have sent by then, so the service asks the driver on a second connection. Peers may send signals
// to that connection, too. Read drops them, so that no answer waits behind them.
//
// Always true:
// - Messages are passed on in the order of arrival.
// - Only Identify, OwnName and Flush block, and only on the bus, never on a player.
// - On shutdown the name is released first. The bus's answer arrives behind all messages that were
//   sent to the name, so these can still be served.

namespace {

// The longest answers of the bus driver are credentials of a user with many groups.
constexpr std::size_t kMaxAnswer = std::size_t{512} << 10;
// Time for reading what peers send to the connection for inquiries.
constexpr std::chrono::milliseconds kDroppingTime{1};

// An idle bus answers within a fraction of this.
constexpr std::chrono::milliseconds kUsualAnswer{1};

constexpr auto kDrop = [](const TYArrival&) {};

TYMessagePtr CallOfDriver(const char* pMethod) {
    return TYMessagePtr(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                     DBUS_INTERFACE_DBUS, pMethod));
}

// The text of an answer, or nothing if it is an error or has none.
const char* TextOf(const TYMessagePtr& answer) {
    const char* pText = nullptr;
    if (answer == nullptr || dbus_message_get_type(answer.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        return nullptr;
    }
    dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID);
    return pText;
}

void ReadCredential(DBusMessageIter* pEntry, TYPeerIdentity& peer) {
    DBusMessageIter variant;
    const char* pKey = nullptr;
    dbus_message_iter_get_basic(pEntry, &pKey);
    dbus_message_iter_next(pEntry);
    dbus_message_iter_recurse(pEntry, &variant);
    if (dbus_message_iter_get_arg_type(&variant) != DBUS_TYPE_UINT32) {
        return;
    }
    dbus_uint32_t value = 0;
    dbus_message_iter_get_basic(&variant, &value);
    if (std::string_view(pKey) == "UnixUserID") {
        peer.uid = value;
    } else if (std::string_view(pKey) == "ProcessID") {
        peer.pid = value;
    }
}

void ReadCredentials(DBusMessage* pReply, TYPeerIdentity& peer) {
    DBusMessageIter iterator;
    DBusMessageIter entries;
    if (!dbus_message_has_signature(pReply, "a{sv}")) {
        return;
    }
    dbus_message_iter_init(pReply, &iterator);
    dbus_message_iter_recurse(&iterator, &entries);
    while (dbus_message_iter_get_arg_type(&entries) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        dbus_message_iter_recurse(&entries, &entry);
        ReadCredential(&entry, peer);
        dbus_message_iter_next(&entries);
    }
}

std::string CommandOf(std::int64_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/comm");
    std::string command;
    std::getline(file, command);
    return command.empty() ? "unknown" : command;
}

}  // namespace

CTYServiceBus::CTYServiceBus(const std::string& address, std::size_t maxMessage)
    : m_Calls(address, maxMessage), m_Inquiries(address, kMaxAnswer) {
    const TYMessagePtr call = CallOfDriver("GetId");
    const TYMessagePtr answer = call != nullptr ? m_Inquiries.Call(call.get(), kDrop) : nullptr;
    const char* pId = TextOf(answer);
    if (pId == nullptr) {
        throw std::runtime_error("cannot get the bus identifier");
    }
    m_strBusId = pId;
}

void CTYServiceBus::OwnName(const Receiver& receiver) {
    const char* pName = TYBusNames::kService;
    const dbus_uint32_t flags = DBUS_NAME_FLAG_DO_NOT_QUEUE;
    const TYMessagePtr call = CallOfDriver("RequestName");
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &pName, DBUS_TYPE_UINT32, &flags,
                             DBUS_TYPE_INVALID);
    const TYMessagePtr answer = m_Calls.Call(call.get(), receiver);
    CTYDbusError error;
    dbus_uint32_t result = 0;
    if (answer != nullptr && dbus_set_error_from_message(error.Get(), answer.get()) == 0) {
        dbus_message_get_args(answer.get(), nullptr, DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID);
    }
    if (result == DBUS_REQUEST_NAME_REPLY_EXISTS) {
        throw std::runtime_error(std::string(pName) + " is already owned by " +
                                 DescribeNameOwner());
    }
    if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        throw std::runtime_error(std::string("not allowed to own ") + pName + ": " +
                                 error.Message());
    }
}

void CTYServiceBus::BeginRelease() {
    const char* pName = TYBusNames::kService;
    const TYMessagePtr call = CallOfDriver("ReleaseName");
    if (call != nullptr &&
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &pName, DBUS_TYPE_INVALID) != 0) {
        m_Release = Release::BEGUN;
        Send(call);
        Write();
    }
}

TYMessagePtr CTYServiceBus::AskDriver(const char* pMethod, const char* pName) {
    const TYMessagePtr call = CallOfDriver(pMethod);
    if (call == nullptr ||
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &pName, DBUS_TYPE_INVALID) == 0) {
        return nullptr;
    }
    return m_Inquiries.Call(call.get(), kDrop);
}

TYPeerIdentity CTYServiceBus::Identify(const std::string& name) {
    TYPeerIdentity peer{m_strBusId, name, std::nullopt, std::nullopt};
    if (const TYMessagePtr answer = AskDriver("GetConnectionCredentials", name.c_str())) {
        ReadCredentials(answer.get(), peer);
    }
    return peer;
}

std::string CTYServiceBus::DescribeNameOwner() {
    const TYMessagePtr answer = AskDriver("GetNameOwner", TYBusNames::kService);
    const char* pOwner = TextOf(answer);
    if (pOwner == nullptr) {
        return "a process that has just exited";
    }
    const TYPeerIdentity holder = Identify(pOwner);
    return holder.name + ", process " + std::to_string(holder.pid.value_or(-1)) + " (" +
           CommandOf(holder.pid.value_or(-1)) + ")";
}

std::array<pollfd, 2> CTYServiceBus::Polled() {
    return {{{m_Calls.Fd(), m_Calls.Events(), 0}, {m_Inquiries.Fd(), m_Inquiries.Events(), 0}}};
}

void CTYServiceBus::Probe() {
    const TYMessagePtr call = m_nProbe == 0 ? CallOfDriver("GetId") : nullptr;
    if (call != nullptr) {
        m_ProbeSent = Clock::now();
        m_nProbe = m_Calls.Send(call.get());
        m_Calls.Write();
    }
}

bool CTYServiceBus::IsBehind() const {
    const Clock::time_point sent = m_ProbeSent;
    return sent != Clock::time_point::max() && Clock::now() - sent > kUsualAnswer;
}

// On this connection the driver answers only probes and, in the end, the release of the name.
bool CTYServiceBus::TakeAnswer(DBusMessage* pHeader) {
    if (m_nProbe != 0 && CTYBusStream::IsAnswer(pHeader, m_nProbe)) {
        m_nProbe = 0;
        m_ProbeSent = Clock::time_point::max();
        return true;
    }
    if (m_Release == Release::BEGUN && dbus_message_get_reply_serial(pHeader) != 0 &&
        dbus_message_has_sender(pHeader, DBUS_SERVICE_DBUS) != 0) {
        m_Release = Release::DONE;
        return true;
    }
    return false;
}

bool CTYServiceBus::Read(std::chrono::steady_clock::duration atMost, const Receiver& receiver) {
    const auto passOn = [&](const TYArrival& arrival) {
        if (!TakeAnswer(arrival.header.get())) {
            receiver(arrival);
        }
    };
    return m_Inquiries.Exchange(kDroppingTime, kDrop) && m_Calls.Exchange(atMost, passOn);
}
