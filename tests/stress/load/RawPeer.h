// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_STRESS_LOAD_RAWPEER_H
#define TALLYRA_TESTS_STRESS_LOAD_RAWPEER_H

#include "receiver/Receiver.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

/// @file
/// A peer that speaks to the bus through a bare socket, so that it can do what no library would:
/// stop anywhere, send without reading, leave at once. Messages are marshalled by GDBus. It shares
/// no code with the service.

/// Where a message goes.
struct RawAddress {
    const char* pDestination = receiver::kServiceName;
    const char* pPath = receiver::kServicePath;
    const char* pInterface = receiver::kInterface;
    const char* pMember = receiver::kMember;
};

/// A message as it is sent.
class CRawMessage {
  public:
    /// @param pBody  a tuple, or null for none
    explicit CRawMessage(GVariant* pBody, bool wantsReply = true, const RawAddress& to = {},
                         bool isSignal = false) {
        GDBusMessage* pMessage =
            isSignal ? g_dbus_message_new_signal(to.pPath, to.pInterface, to.pMember)
                     : g_dbus_message_new_method_call(to.pDestination, to.pPath, to.pInterface,
                                                      to.pMember);
        g_dbus_message_set_destination(pMessage, to.pDestination);
        if (pBody != nullptr) {
            g_dbus_message_set_body(pMessage, pBody);
        }
        const int flags = G_DBUS_MESSAGE_FLAGS_NO_AUTO_START |
                          (wantsReply ? 0 : G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
        g_dbus_message_set_flags(pMessage, static_cast<GDBusMessageFlags>(flags));
        g_dbus_message_set_serial(pMessage, 1);
        gsize size = 0;
        guchar* pBytes =
            g_dbus_message_to_blob(pMessage, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
        m_strBytes.assign(reinterpret_cast<const char*>(pBytes), size);
        g_free(pBytes);
        g_object_unref(pMessage);
    }

    /// Gives the message a new serial.
    const std::string& WithSerial(std::uint32_t serial) {
        constexpr std::size_t kOffset = 8;
        std::memcpy(m_strBytes.data() + kOffset, &serial, sizeof(serial));
        return m_strBytes;
    }
    std::string& Bytes() { return m_strBytes; }

  private:
    std::string m_strBytes;
};

/// A connection to a bus.
///
/// Threads: one.
class CRawPeer {
  public:
    /// Connects, without saying anything.
    /// @throws std::system_error  when the bus does not accept
    explicit CRawPeer(const std::string& address) {
        constexpr std::string_view kPrefix = "unix:path=";
        sockaddr_un to{AF_UNIX, {}};
        address.substr(kPrefix.size(), address.find(','))
            .copy(to.sun_path, sizeof(to.sun_path) - 1);
        m_nFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(m_nFd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) != 0) {
            const int error = errno;
            close(m_nFd);
            throw std::system_error(error, std::generic_category(), address);
        }
    }
    ~CRawPeer() { close(m_nFd); }
    CRawPeer(const CRawPeer&) = delete;
    CRawPeer& operator=(const CRawPeer&) = delete;

    int Fd() const { return m_nFd; }

    /// Authenticates as the process's user and says Hello.
    /// @throws std::runtime_error  when the bus refuses
    void Join() {
        std::string user;
        for (const char digit : std::to_string(geteuid())) {
            user += "3" + std::string(1, digit);
        }
        Write(std::string(1, '\0') + "AUTH EXTERNAL " + user + "\r\n");
        std::string answer;
        while (!answer.ends_with("\r\n")) {
            answer += ReadBytes(1);
        }
        if (!answer.starts_with("OK")) {
            throw std::runtime_error("the bus answers " + answer);
        }
        Write("BEGIN\r\n");
        Call(nullptr,
             {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "Hello"});
    }

    /// Writes all bytes; blocks while the bus does not read.
    void Write(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t written = send(m_nFd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (written < 0 && errno != EINTR) {
                throw std::system_error(errno, std::generic_category(), "send");
            }
            bytes.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
        }
    }

    /// Writes as much as possible without blocking, and reads and forgets what has arrived.
    /// @return the number of bytes written
    std::size_t Exchange(std::string_view bytes) const {
        pollfd both{m_nFd, POLLIN | POLLOUT, 0};
        poll(&both, 1, -1);
        std::array<char, 65536> forgotten;
        if ((both.revents & POLLIN) != 0 &&
            recv(m_nFd, forgotten.data(), forgotten.size(), MSG_DONTWAIT) == 0) {
            throw std::runtime_error("the bus has closed the connection");
        }
        const ssize_t written =
            send(m_nFd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return written > 0 ? static_cast<std::size_t>(written) : 0;
    }

    /// Calls a method and waits for its reply.
    /// @return the reply in GVariant's text format, or the name of the error
    std::string Call(GVariant* pBody, const RawAddress& to = {}) {
        CRawMessage message(pBody, true, to);
        return Call(message);
    }
    std::string Call(CRawMessage& message) {
        const std::uint32_t serial = ++m_nSerial;
        Write(message.WithSerial(serial));
        for (;;) {
            const std::unique_ptr<GDBusMessage, decltype(&g_object_unref)> reply(ReadMessage(),
                                                                                 &g_object_unref);
            if (g_dbus_message_get_reply_serial(reply.get()) == serial) {
                return TextOf(reply.get());
            }
        }
    }

    std::uint32_t NextSerial() { return ++m_nSerial; }

  private:
    std::string ReadBytes(std::size_t count) const {
        std::string bytes(count, '\0');
        for (std::size_t done = 0; done < count;) {
            const ssize_t got = recv(m_nFd, bytes.data() + done, count - done, 0);
            if (got == 0 || (got < 0 && errno != EINTR)) {
                throw std::runtime_error("the bus has closed the connection");
            }
            done += got > 0 ? static_cast<std::size_t>(got) : 0;
        }
        return bytes;
    }

    GDBusMessage* ReadMessage() const {
        constexpr std::size_t kFixedHeader = 16;
        std::string bytes = ReadBytes(kFixedHeader);
        const gssize size = g_dbus_message_bytes_needed(reinterpret_cast<guchar*>(bytes.data()),
                                                        bytes.size(), nullptr);
        bytes += ReadBytes(static_cast<std::size_t>(size) - kFixedHeader);
        return g_dbus_message_new_from_blob(reinterpret_cast<guchar*>(bytes.data()), bytes.size(),
                                            G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
    }

    static std::string TextOf(GDBusMessage* pReply) {
        if (const char* pError = g_dbus_message_get_error_name(pReply)) {
            return pError;
        }
        GVariant* pBody = g_dbus_message_get_body(pReply);
        char* pText = pBody == nullptr ? g_strdup("()") : g_variant_print(pBody, FALSE);
        std::string text = pText;
        g_free(pText);
        return text;
    }

    int m_nFd = -1;
    std::uint32_t m_nSerial = 0;
};

#endif  // TALLYRA_TESTS_STRESS_LOAD_RAWPEER_H
