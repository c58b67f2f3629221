// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusStream.h"

#include "TYDbusError.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string_view>

// Problem: libdbus reads a connection in pieces of 2 KiB, with several system calls and locks for
// each. A bus writes faster than that. If peers flood the service, the bus's queue for the service
// grows to its limit, which is some hundred megabytes. Every peer then waits for all of it, and the
// bus refuses calls of all peers alike.
//
// Idea: read the socket directly, as much at once as has arrived, and use libdbus only to parse and
// to build messages. Reading is then limited by the speed of memory, several times faster than any
// bus writes, and the queue of the bus stays empty.
//
// The part of a client's work that this takes is small: connect to a Unix socket, authenticate with
// EXTERNAL (the kernel tells the bus the user), say Hello, number messages. The connection does not
// ask for file descriptors, so the bus passes none.
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

using Entries = std::unique_ptr<DBusAddressEntry*, decltype(&dbus_address_entries_free)>;

/// A socket address, and how much of it counts.
struct SocketAddress {
    sockaddr_un address{AF_UNIX, {}};
    socklen_t size = 0;
};

// Fills in the path of an entry, or the name of an abstract socket.
bool ReadEntry(DBusAddressEntry* pEntry, SocketAddress& to) {
    const char* pPath = dbus_address_entry_get_value(pEntry, "path");
    const char* pAbstract = dbus_address_entry_get_value(pEntry, "abstract");
    const std::string name = pPath != nullptr       ? std::string(pPath) + '\0'
                             : pAbstract != nullptr ? '\0' + std::string(pAbstract)
                                                    : "";
    if (std::string_view(dbus_address_entry_get_method(pEntry)) != "unix" || name.empty() ||
        name.size() > sizeof(to.address.sun_path)) {
        return false;
    }
    name.copy(to.address.sun_path, name.size());
    to.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return true;
}

int TryConnect(const SocketAddress& to) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to.address), to.size) == 0) {
        return fd;
    }
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
}

// The user in decimal, each digit in hexadecimal.
std::string AuthenticationLine() {
    std::string line = std::string(1, '\0') + "AUTH EXTERNAL ";
    for (const char digit : std::to_string(geteuid())) {
        line += {'3', digit};
    }
    return line + "\r\n";
}

[[noreturn]] void Fail(const std::string& what, const std::string& why) {
    throw std::runtime_error(what + ": " + why);
}

}  // namespace

CTYBusStream::CTYBusStream(const std::string& address, std::size_t maxMessage)
    : m_Reader(maxMessage) {
    Connect(address.empty() ? SystemBusAddress() : address);
    try {
        Authenticate();
    } catch (...) {
        close(m_nFd);
        throw;
    }
}

CTYBusStream::~CTYBusStream() {
    close(m_nFd);
}

void CTYBusStream::Connect(const std::string& address) {
    CTYDbusError error;
    DBusAddressEntry** pEntries = nullptr;
    int count = 0;
    if (dbus_parse_address(address.c_str(), &pEntries, &count, error.Get()) == 0) {
        Fail("cannot connect to the bus", error.Message());
    }
    const Entries entries(pEntries, &dbus_address_entries_free);
    std::string why = "only addresses of Unix sockets are supported";
    for (int i = 0; i < count && m_nFd < 0; ++i) {
        SocketAddress to;
        if (ReadEntry(pEntries[i], to)) {
            m_nFd = TryConnect(to);
            why = std::strerror(errno);
        }
    }
    if (m_nFd < 0) {
        Fail("cannot connect to the bus", address + ": " + why);
    }
}

// The bus's first line and nothing else arrives before BEGIN.
void CTYBusStream::Authenticate() {
    const auto end = Clock::now() + kPatience;
    Queue(AuthenticationLine());
    Write();
    std::string answer;
    char next = 0;
    while (!answer.ends_with("\r\n") && WaitFor(end - Clock::now()) &&
           recv(m_nFd, &next, 1, MSG_DONTWAIT) == 1) {
        answer += next;
    }
    if (!answer.starts_with("OK")) {
        Fail("the bus refuses the connection", answer.empty() ? "no answer" : answer);
    }
    Queue("BEGIN\r\n");
    const TYMessagePtr hello(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                          DBUS_INTERFACE_DBUS, "Hello"));
    const TYMessagePtr reply =
        hello != nullptr ? Call(hello.get(), [](const TYArrival&) {}) : nullptr;
    if (reply == nullptr || dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        Fail("the bus refuses the connection", "no answer to Hello");
    }
}

void CTYBusStream::Queue(const std::string& bytes) {
    const CTYLock lock(m_Mutex);
    m_strOutput += bytes;
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
