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

// libdbus would send, read or close through a descriptor that is the host's.
void RequireOurs(bool open, ino_t inode) {
    if (open && inode != kFirstInode) {
        std::abort();
    }
}

bool IsForTheBus(DBusMessage* pMessage) {
    return std::strcmp(dbus_message_get_destination(pMessage), DBUS_SERVICE_DBUS) == 0;
}

}  // namespace

CFakeBus::Connection& CFakeBus::Of(DBusConnection* pConnection) {
    return *reinterpret_cast<Connection*>(pConnection);
}

CFakeBus::Connection* CFakeBus::WithSocket(int socket) {
    const auto found = std::ranges::find(m_Connections, socket, &Connection::socket);
    return found == m_Connections.end() ? nullptr : &*found;
}

bool CFakeBus::InitThreads() {
    Note("InitThreads");
    return dbus_threads_init_default() != FALSE;
}

void CFakeBus::SetChangeSigpipe(bool change) {
    Note(change ? "SetChangeSigpipe true" : "SetChangeSigpipe false");
}

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

bool CFakeBus::IsConnected(DBusConnection* pConnection) {
    const std::lock_guard lock(m_Mutex);
    return Of(pConnection).open;
}

bool CFakeBus::IsAuthenticated(DBusConnection* pConnection) {
    const std::lock_guard lock(m_Mutex);
    return Of(pConnection).authenticated;
}

bool CFakeBus::HasMessagesToSend(DBusConnection* pConnection) {
    const std::lock_guard lock(m_Mutex);
    return !Of(pConnection).queued.empty();
}

bool CFakeBus::Send(DBusConnection* pConnection, DBusMessage* pMessage, dbus_uint32_t* pSerial) {
    Note("Send");
    if (failing.contains("Send")) {
        return false;
    }
    const std::lock_guard lock(m_Mutex);
    RequireOurs(Of(pConnection).open, Of(pConnection).inode);
    *pSerial = IsForTheBus(pMessage) ? ++m_nBusSerial : ++m_nServiceSerial;
    dbus_message_set_serial(pMessage, *pSerial);
    Of(pConnection).queued.emplace_back(dbus_message_ref(pMessage));
    return true;
}

// The handshake takes one step.
bool CFakeBus::ReadWrite(DBusConnection* pConnection, int timeoutMs) {
    Connection& connection = Of(pConnection);
    {
        const std::lock_guard lock(m_Mutex);
        RequireOurs(connection.open, connection.inode);
    }
    if (!IsAuthenticated(pConnection)) {
        if (handshakeStalls) {
            Wait(std::chrono::milliseconds(timeoutMs));
        }
        const std::lock_guard lock(m_Mutex);
        connection.authenticated = !handshakeStalls;
        return connection.open;
    }
    Exchange(connection);
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

TYMessagePtr CFakeBus::Answer(const Call& call) {
    return MakeReply(call.reply);
}

DBusMessage* CFakeBus::PopMessage(DBusConnection* pConnection) {
    const std::lock_guard lock(m_Mutex);
    auto& arrived = Of(pConnection).arrived;
    if (arrived.empty()) {
        return nullptr;
    }
    TYMessagePtr message = std::move(arrived.front());
    arrived.pop_front();
    return message.release();
}

void CFakeBus::Close(DBusConnection* pConnection) {
    Note("Close");
    const std::lock_guard lock(m_Mutex);
    RequireOurs(Of(pConnection).open, Of(pConnection).inode);
    Of(pConnection).open = false;
}

void CFakeBus::Unref(DBusConnection* pConnection) {
    Note("Unref");
    if (IsConnected(pConnection)) {
        std::abort();  // as libdbus does
    }
}

DBusMessage* CFakeBus::NewMethodCall(const char* pDestination, const char* pPath,
                                     const char* pInterface, const char* pMember) {
    return failing.contains("NewMethodCall")
               ? nullptr
               : dbus_message_new_method_call(pDestination, pPath, pInterface, pMember);
}

bool CFakeBus::AppendString(DBusMessage* pMessage, const char* pText) {
    return !failing.contains("AppendString") &&
           dbus_message_append_args(pMessage, DBUS_TYPE_STRING, &pText, DBUS_TYPE_INVALID) != FALSE;
}

int CFakeBus::GetSocket(DBusConnection* pConnection) {
    const std::lock_guard lock(m_Mutex);
    return Of(pConnection).socket;
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

void CFakeBus::SetReply(const std::string& function, Reply reply) {
    const std::lock_guard lock(m_Mutex);
    replies[function] = std::move(reply);
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

std::size_t CFakeBus::Count(const std::string& operation) {
    return static_cast<std::size_t>(std::ranges::count(Journal(), operation));
}

bool CFakeBus::HasPending() {
    const std::lock_guard lock(m_Mutex);
    return std::any_of(m_Connections.begin(), m_Connections.end(), [](const Connection& each) {
        return !each.queued.empty() || !each.arriving.empty() || !each.arrived.empty();
    });
}

void CFakeBus::Note(const std::string& operation) {
    const std::lock_guard lock(m_Mutex);
    m_Journal.push_back(operation);
}
