// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusStream.h"

#include "TYDbusError.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string_view>

// Problem: the service must read faster than the bus writes. If it does not, the bus's queue for
// the service grows to its limit, which is some hundred megabytes. Every peer then waits for all of
// it, and the bus refuses calls of all peers alike. Reading with libdbus, a second thread could not
// keep up with 20 flooding peers: libdbus reads 2 KiB at a time, with several system calls and
// locks for each.
//
// Other libraries read whole messages, but do not suit either. sd-bus drops messages whose
// signature has 255 characters, the most that D-Bus allows, and that of a batch of 36 records has
// 255. GDBus decodes each body before its receiver can refuse it, and 30 MiB of empty strings take
// 650 MiB then.
//
// Idea: libdbus connects and authenticates, and parses and builds messages. Only the bytes between
// are read and written here, as many at once as have arrived. The bus says nothing before it is
// greeted, so at the moment when the connection is authenticated libdbus has read nothing ahead. It
// is not used for reading or writing after that.
//
// Always true:
// - Exchange, Send and Write never block. Call and Flush block on the bus only, and not for ever.
// - While much output waits, nothing is read: replies never take more memory than kMaxOutput and
//   what one Exchange adds.

namespace {

constexpr std::chrono::seconds kPatience{5};
constexpr std::size_t kMaxOutput = std::size_t{4} << 20;

std::string SystemBusAddress() {
    const char* pAddress = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return pAddress != nullptr && *pAddress != '\0' ? pAddress : TALLYRA_SYSTEM_BUS_ADDRESS;
}

}  // namespace

void CTYBusStream::CloseConnection::operator()(DBusConnection* pConnection) const {
    dbus_connection_close(pConnection);
    dbus_connection_unref(pConnection);
}

CTYBusStream::CTYBusStream(const std::string& address, std::size_t maxMessage)
    : m_pConnection(Connect(address.empty() ? SystemBusAddress() : address)), m_Reader(maxMessage) {
    dbus_connection_get_unix_fd(m_pConnection.get(), &m_nFd);
    const TYMessagePtr hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                          DBUS_INTERFACE_DBUS, "Hello"));
    const TYMessagePtr reply =
        hello != nullptr ? Call(hello.get(), [](const TYArrival&) {}) : nullptr;
    if (reply == nullptr || dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        throw std::runtime_error("the bus refuses the connection: no answer to Hello");
    }
}

CTYBusStream::Connection CTYBusStream::Connect(const std::string& address) {
    CTYDbusError error;
    Connection connection(dbus_connection_open_private(address.c_str(), error.Get()));
    if (connection == nullptr) {
        throw std::runtime_error(std::string("cannot connect to the bus: ") + error.Message());
    }
    dbus_connection_set_exit_on_disconnect(connection.get(), 0);
    const auto end = Clock::now() + kPatience;
    while (dbus_connection_get_is_authenticated(connection.get()) == 0) {
        if (dbus_connection_read_write(connection.get(), 100) == 0 || Clock::now() >= end) {
            throw std::runtime_error("the bus refuses the connection: not authenticated");
        }
    }
    return connection;
}

short CTYBusStream::Events() {
    const CTYLock lock(m_Mutex);
    const short reading = m_strOutput.size() < kMaxOutput ? POLLIN : 0;
    return m_strOutput.empty() ? reading : static_cast<short>(reading | POLLOUT);
}

bool CTYBusStream::IsCongested() {
    const CTYLock lock(m_Mutex);
    return m_strOutput.size() >= kMaxOutput;
}

bool CTYBusStream::Exchange(Clock::duration atMost, const Receiver& receiver) {
    const auto end = Clock::now() + atMost;
    for (;;) {
        while (const std::optional<TYArrival> arrival = m_Reader.Next()) {
            receiver(*arrival);
        }
        Write();
        if (m_Reader.IsBroken()) {
            return false;
        }
        if (Clock::now() >= end || IsCongested()) {
            return true;
        }
        const int got = Receive();
        if (got <= 0) {
            return got == 0;
        }
    }
}

/// @return 1 if something was read, 0 if there is nothing to read, -1 if the bus has disconnected
int CTYBusStream::Receive() {
    const std::span<char> space = m_Reader.Space();
    const ssize_t got = recv(m_nFd, space.data(), space.size(), MSG_DONTWAIT);
    if (got <= 0) {
        return got < 0 && (errno == EAGAIN || errno == EINTR) ? 0 : -1;
    }
    m_Reader.Take(static_cast<std::size_t>(got));
    return 1;
}

dbus_uint32_t CTYBusStream::Send(DBusMessage* pMessage) {
    char* pBytes = nullptr;
    int size = 0;
    const CTYLock lock(m_Mutex);
    m_nSerial = m_nSerial == UINT32_MAX ? 1 : m_nSerial + 1;
    dbus_message_set_serial(pMessage, m_nSerial);
    if (dbus_message_marshal(pMessage, &pBytes, &size) != 0) {
        m_strOutput.append(pBytes, static_cast<std::size_t>(size));
        dbus_free(pBytes);
    }
    return m_nSerial;
}

// An error shows when the socket is read: the bus may have sent messages before it closed it.
bool CTYBusStream::Write() {
    const CTYLock lock(m_Mutex);
    std::string_view rest = m_strOutput;
    while (!rest.empty()) {
        const ssize_t written = send(m_nFd, rest.data(), rest.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (written < 0) {
            break;
        }
        rest.remove_prefix(static_cast<std::size_t>(written));
    }
    m_strOutput.erase(0, m_strOutput.size() - rest.size());
    return m_strOutput.empty();
}

TYMessagePtr CTYBusStream::Call(DBusMessage* pCall, const Receiver& receiver) {
    const auto end = Clock::now() + kPatience;
    const dbus_uint32_t serial = Send(pCall);
    for (;;) {
        // Not by Exchange: behind the answer there may be calls for the service.
        while (const std::optional<TYArrival> arrival = m_Reader.Next()) {
            if (IsAnswer(arrival->header.get(), serial)) {
                return arrival->Parse();
            }
            receiver(*arrival);
        }
        Write();
        if (m_Reader.IsBroken() || !WaitFor(end - Clock::now()) || Receive() < 0) {
            return nullptr;
        }
    }
}

void CTYBusStream::Flush() {
    const auto end = Clock::now() + kPatience;
    pollfd output{m_nFd, POLLOUT, 0};
    while (!Write() && Clock::now() < end && poll(&output, 1, 1000) > 0 &&
           (output.revents & (POLLERR | POLLHUP)) == 0) {
    }
}

// "org.freedesktop.DBus" is a name that no peer can have.
bool CTYBusStream::IsAnswer(DBusMessage* pMessage, dbus_uint32_t serial) {
    return dbus_message_get_reply_serial(pMessage) == serial &&
           dbus_message_has_sender(pMessage, DBUS_SERVICE_DBUS) != 0;
}

/// @return whether there is something to read or to write within that time
bool CTYBusStream::WaitFor(Clock::duration time) {
    const auto nanoseconds = std::chrono::nanoseconds(time).count();
    const timespec left{nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    pollfd waited{m_nFd, Events(), 0};
    return nanoseconds > 0 && ppoll(&waited, 1, &left, nullptr) > 0;
}
