// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "doubles/FakeBus.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

constexpr int kFirstSocket = 1000;
constexpr ino_t kFirstInode = 1;

void Require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// libdbus would send, read or close through a descriptor that is the host's.
template <class Connection>
void RequireOurs(const Connection& connection) {
    Require(!connection.open || connection.inode == kFirstInode);
}

std::string BytesOf(DBusMessage* pMessage) {
    char* pBytes = nullptr;
    int length = 0;
    Require(dbus_message_marshal(pMessage, &pBytes, &length) != FALSE);
    std::string bytes(pBytes, static_cast<std::size_t>(length));
    dbus_free(pBytes);
    return bytes;
}

bool IsForTheBus(DBusMessage* pMessage) {
    return std::strcmp(dbus_message_get_destination(pMessage), DBUS_SERVICE_DBUS) == 0;
}

}  // namespace

DBusConnection* CFakeBus::OpenPrivate(const char* /*pAddress*/, DBusError* pError) {
    Note("OpenPrivate");
    const std::string error = failing.contains("OpenPrivate") ? "no memory" : connectError;
    if (!error.empty()) {
        dbus_set_error(pError, DBUS_ERROR_FAILED, "%s", error.c_str());
        return nullptr;
    }
    if (connectNull) {
        return nullptr;
    }
    const std::lock_guard lock(m_Mutex);
    Connection& opened = m_Connections.emplace_back();
    opened.socket = kFirstSocket + static_cast<int>(m_Connections.size());
    opened.inode = kFirstInode;
    return reinterpret_cast<DBusConnection*>(&opened);
}

bool CFakeBus::Send(DBusConnection* pConnection, DBusMessage* pMessage, dbus_uint32_t* pSerial) {
    Note("Send");
    if (failing.contains("Send")) {
        return false;
    }
    const Locked connection = Of(pConnection);
    RequireOurs(*connection.pConnection);
    *pSerial = IsForTheBus(pMessage) ? ++m_nBusSerial : ++m_nServiceSerial;
    dbus_message_set_serial(pMessage, *pSerial);
    connection->queued.emplace_back(dbus_message_ref(pMessage));
    return true;
}

// The handshake takes one step.
bool CFakeBus::ReadWrite(DBusConnection* pConnection, int timeoutMs) {
    Connection& connection = *Of(pConnection).pConnection;
    {
        const std::lock_guard lock(m_Mutex);
        RequireOurs(connection);
    }
    if (IsAuthenticated(pConnection)) {
        Exchange(connection);
    } else if (handshakeStalls) {
        Wait(std::chrono::milliseconds(timeoutMs));
    } else {
        Of(pConnection)->authenticated = true;
    }
    return IsConnected(pConnection);
}

void CFakeBus::Exchange(Connection& connection) {
    while (const TYMessagePtr message = TakeForAnswer(connection)) {
        AnswerMessage(connection, message.get());
    }
    const std::lock_guard lock(m_Mutex);
    for (auto next = connection.arriving.begin(); next != connection.arriving.end();) {
        const auto arriving = next++;
        if (arriving->in.count() <= 0) {
            connection.arrived.push_back(std::move(arriving->message));
            connection.arriving.erase(arriving);
        }
    }
}

TYMessagePtr CFakeBus::TakeForAnswer(Connection& connection) {
    const std::lock_guard lock(m_Mutex);
    while (!m_bFull && connection.open && !connection.queued.empty()) {
        connection.taken.push_back(std::move(connection.queued.front()));
        connection.queued.pop_front();
    }
    if (m_bSilent || connection.taken.empty()) {
        return nullptr;
    }
    TYMessagePtr message = std::move(connection.taken.front());
    connection.taken.pop_front();
    return message;
}

void CFakeBus::AnswerMessage(Connection& connection, DBusMessage* pMessage) {
    Call call = ReadCall(pMessage, connection.timeoutMs);
    std::chrono::milliseconds after{0};
    TYMessagePtr answer =
        IsForTheBus(pMessage) ? AnswerOfBus(call) : AnswerOfService(std::move(call), &after);
    if (answer != nullptr) {
        dbus_message_set_reply_serial(answer.get(), dbus_message_get_serial(pMessage));
        const std::lock_guard lock(m_Mutex);
        connection.arriving.push_back({after, std::move(answer)});
    }
}

TYMessagePtr CFakeBus::AnswerOfBus(const Call& call) {
    Note(call.member);
    const bool looks = call.member == "NameHasOwner";
    if (looks && onLook) {
        onLook();
    }
    TYMessagePtr answer(MakeMessage(looks ? Arguments{} : Arguments{":1.7"}));
    const std::lock_guard lock(m_Mutex);
    m_BusCalls.push_back(call);
    if (looks) {
        const dbus_bool_t owner = m_bOwner ? TRUE : FALSE;
        dbus_message_append_args(answer.get(), DBUS_TYPE_BOOLEAN, &owner, DBUS_TYPE_INVALID);
    }
    return answer;
}

// Moves the call: a test may have memory run out from onCall on.
TYMessagePtr CFakeBus::AnswerOfService(Call call, std::chrono::milliseconds* pAfter) {
    Note(call.Function());
    if (onCall) {
        onCall(call);
    }
    {
        const std::lock_guard lock(m_Mutex);
        call.reply = replies[call.Function()];
    }
    *pAfter = call.reply.after;
    TYMessagePtr answer = call.reply.never ? nullptr : Answer(call);
    const std::lock_guard lock(m_Mutex);
    m_Calls.push_back(std::move(call));
    m_Called.notify_all();
    return answer;
}

DBusMessage* CFakeBus::PopMessage(DBusConnection* pConnection) {
    const Locked connection = Of(pConnection);
    if (connection->arrived.empty()) {
        return nullptr;
    }
    TYMessagePtr message = std::move(connection->arrived.front());
    connection->arrived.pop_front();
    return message.release();
}

void CFakeBus::Close(DBusConnection* pConnection) {
    Note("Close");
    const Locked connection = Of(pConnection);
    RequireOurs(*connection.pConnection);
    connection->open = false;
}

void CFakeBus::Unref(DBusConnection* pConnection) {
    Note("Unref");
    Require(!IsConnected(pConnection));  // as libdbus does
}

DBusMessage* CFakeBus::NewMethodCall(const char* pDestination, const char* pPath,
                                     const char* pInterface, const char* pMember) {
    return failing.contains("NewMethodCall")
               ? nullptr
               : dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

bool CFakeBus::Stat(int socket, struct stat* pStatus) {
    const std::lock_guard lock(m_Mutex);
    const Connection* pConnection = WithSocket(socket);
    if (pConnection == nullptr || pConnection->inode == 0) {
        return false;
    }
    pStatus->st_dev = 1;
    pStatus->st_ino = pConnection->inode;
    return true;
}

int CFakeBus::Unread(int socket) {
    const std::lock_guard lock(m_Mutex);
    return static_cast<int>(
        std::ranges::count_if(WithSocket(socket)->arriving,
                              [](const Arriving& message) { return message.in.count() <= 0; }));
}

// What a full socket or a silent bus holds back makes nothing ready.
void CFakeBus::Poll(pollfd* pWaited, int timeoutMs) {
    std::chrono::milliseconds wait(timeoutMs);
    {
        const std::lock_guard lock(m_Mutex);
        Connection& connection = *WithSocket(pWaited->fd);
        connection.timeoutMs = timeoutMs;
        const bool writable = (pWaited->events & POLLOUT) != 0 && !m_bFull;
        const bool answers = !m_bSilent && !connection.taken.empty();
        if (writable || answers || !connection.open) {
            return;
        }
        for (const Arriving& message : connection.arriving) {
            wait = std::min(wait, message.in);
        }
    }
    Wait(wait);
}

void CFakeBus::Wait(std::chrono::milliseconds time) {
    if (time.count() <= 0) {
        return;
    }
    {
        const std::lock_guard lock(m_Mutex);
        m_Waits.push_back(static_cast<int>(time.count()));
        for (Connection& connection : m_Connections) {
            for (Arriving& message : connection.arriving) {
                message.in -= time;
            }
        }
    }
    if (onWait) {
        onWait(time);
    } else {
        std::this_thread::sleep_for(time);
    }
}

void CFakeBus::LoseSockets(Loss loss) {
    ForAll([loss](Connection& connection) {
        connection.inode = loss == Loss::Reused ? kFirstInode + 1 : 0;
    });
}

void CFakeBus::Push(DBusMessage* pMessage) {
    const TYMessagePtr pushed(pMessage);
    ForAll([pMessage](Connection& connection) {
        connection.arriving.push_back(
            {std::chrono::milliseconds(0), TYMessagePtr(dbus_message_ref(pMessage))});
    });
}

std::vector<CFakeBus::Call> CFakeBus::Calls(const std::string& function) {
    std::vector<Call> calls = Calls();
    std::erase_if(calls, [&](const Call& call) { return call.Function() != function; });
    return calls;
}

bool CFakeBus::WaitForCalls(const std::string& function, std::size_t count,
                            std::chrono::milliseconds time) {
    std::unique_lock lock(m_Mutex);
    return m_Called.wait_for(lock, time, [&] {
        return std::ranges::count(m_Calls, function, &Call::Function) >=
               static_cast<std::ptrdiff_t>(count);
    });
}

bool CFakeBus::HasPending() {
    const std::lock_guard lock(m_Mutex);
    return std::any_of(m_Connections.begin(), m_Connections.end(), [](const Connection& each) {
        return !each.queued.empty() || !each.arriving.empty() || !each.arrived.empty();
    });
}

// libdbus reads a message as strictly as the bus does, which disconnects a client that sends
// another.
CFakeBus::Call CFakeBus::ReadCall(DBusMessage* pMessage, int timeoutMs) {
    std::string bytes = BytesOf(pMessage);
    const TYMessagePtr read(
        dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), nullptr));
    Require(read != nullptr);
    return {dbus_message_get_destination(read.get()),
            dbus_message_get_path(read.get()),
            dbus_message_get_interface(read.get()),
            dbus_message_get_member(read.get()),
            dbus_message_get_signature(read.get()),
            Read(read.get()),
            timeoutMs,
            std::move(bytes),
            {}};
}

void CFakeBus::Append(DBusMessage* pMessage, const Arguments& body) {
    for (const Argument& argument : body) {
        if (const auto* pInt = std::get_if<std::int32_t>(&argument)) {
            dbus_message_append_args(pMessage, DBUS_TYPE_INT32, pInt, DBUS_TYPE_INVALID);
        } else if (const auto* pText = std::get_if<std::string>(&argument)) {
            const char* text = pText->c_str();
            dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
        } else {
            const auto& bytes = std::get<std::vector<char>>(argument);
            const char* data = bytes.data();
            dbus_message_append_args(pMessage, DBUS_TYPE_ARRAY, DBUS_TYPE_BYTE, &data,
                                     static_cast<int>(bytes.size()), DBUS_TYPE_INVALID);
        }
    }
}

CFakeBus::Arguments CFakeBus::Read(DBusMessage* pMessage) {
    Arguments arguments;
    DBusMessageIter iterator;
    dbus_message_iter_init(pMessage, &iterator);
    for (; dbus_message_iter_get_arg_type(&iterator) != DBUS_TYPE_INVALID;
         dbus_message_iter_next(&iterator)) {
        const int type = dbus_message_iter_get_arg_type(&iterator);
        if (type == DBUS_TYPE_INT32) {
            std::int32_t value = 0;
            dbus_message_iter_get_basic(&iterator, &value);
            arguments.emplace_back(value);
        } else if (type == DBUS_TYPE_STRING) {
            const char* text = nullptr;
            dbus_message_iter_get_basic(&iterator, &text);
            arguments.emplace_back(std::string(text));
        } else {
            DBusMessageIter array;
            const char* data = nullptr;
            int count = 0;
            dbus_message_iter_recurse(&iterator, &array);
            dbus_message_iter_get_fixed_array(&array, &data, &count);
            arguments.emplace_back(std::vector<char>(data, data + count));
        }
    }
    return arguments;
}

TYMessagePtr CFakeBus::MakeReply(const Reply& reply) {
    if (reply.error.empty()) {
        return TYMessagePtr(MakeMessage(reply.body));
    }
    TYMessagePtr message(dbus_message_new(DBUS_MESSAGE_TYPE_ERROR));
    dbus_message_set_error_name(message.get(), reply.pErrorName);
    Append(message.get(), {reply.error});
    return message;
}
