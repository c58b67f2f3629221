// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "DaemonFixture.h"

#include "TYRecordImage.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kCallTimeoutMs = 20'000;

bool WaitUntilReadable(int fd, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd waited{fd, POLLIN, 0};
    return left.count() > 0 && poll(&waited, 1, static_cast<int>(left.count())) > 0;
}

std::size_t CountOf(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

// Where the program says that it is ready, as it does to a service manager.
int MakeNotifySocket(const std::filesystem::path& folder) {
    const std::string path = folder / "notify";
    unlink(path.c_str());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::runtime_error("no socket at " + path);
    }
    setenv("NOTIFY_SOCKET", path.c_str(), 1);
    return fd;
}

std::string TakeError(GError* pError) {
    char* pName = g_dbus_error_get_remote_error(pError);
    std::string name = pName != nullptr ? pName : pError->message;
    g_free(pName);
    g_error_free(pError);
    return name;
}

std::string TakeText(GVariant* pReply) {
    char* pText = g_variant_print(pReply, FALSE);
    std::string text = pText;
    g_free(pText);
    g_variant_unref(pReply);
    return text;
}

}  // namespace

void CFd::Take(int fd) {
    if (m_nFd >= 0) {
        close(m_nFd);
    }
    m_nFd = fd;
}

CDaemon::CDaemon(const std::filesystem::path& folder, const std::vector<std::string>& arguments)
    : m_Notify(MakeNotifySocket(folder)) {
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe");
    }
    m_LogReader.Take(pipe[0]);
    // With our own copy closed, the log ends when the program does.
    const CFd writer(pipe[1]);
    setenv("LOGSVC_OUTPUT", "stderr", 1);
    setenv("LOGSVC_LEVEL", "info", 1);
    std::vector<std::string> command = {
        "bash", "-c", "exec \"$0\" \"$@\" 2>&" + std::to_string(writer.Get()), SERVICE_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    m_pProcess = std::make_unique<CChildProcess>(command, ChildOptions{.keepFds = {writer.Get()}});
}

bool CDaemon::WaitUntilReady() {
    std::array<char, 256> message{};
    if (!WaitUntilReadable(m_Notify.Get(), Clock::now() + kPatience)) {
        return false;
    }
    const ssize_t size = recv(m_Notify.Get(), message.data(), message.size(), 0);
    return size > 0 &&
           std::string_view(message.data(), static_cast<std::size_t>(size)) == "READY=1";
}

bool CDaemon::ReadLog(Clock::time_point deadline) {
    std::array<char, 4096> part{};
    if (!WaitUntilReadable(m_LogReader.Get(), deadline)) {
        return false;
    }
    const ssize_t size = read(m_LogReader.Get(), part.data(), part.size());
    m_strLog.append(part.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    return size > 0;
}

bool CDaemon::WaitForLog(const std::string& text, std::size_t count) {
    const auto deadline = Clock::now() + kPatience;
    while (CountOf(m_strLog, text) < count) {
        if (!ReadLog(deadline)) {
            return false;
        }
    }
    return true;
}

std::string CDaemon::AllLog() {
    const auto deadline = Clock::now() + kPatience;
    while (ReadLog(deadline)) {
    }
    return m_strLog;
}

CCaller::CCaller(const std::string& address)
    : m_pConnection(g_dbus_connection_new_for_address_sync(
          address.c_str(),
          static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                            G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
          nullptr, nullptr, nullptr)) {}

std::string CCaller::Call(GVariant* pBody, const char* pMember, const char* pPath,
                          const char* pInterface) {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_sync(
        m_pConnection, "org.veltra.tv.tallyra.service", pPath, pInterface, pMember, pBody, nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &pError);
    return pReply == nullptr ? TakeError(pError) : TakeText(pReply);
}

void CCaller::Begin(const std::vector<receiver::Value>& values) {
    ++m_nBegun;
    g_dbus_connection_call(
        m_pConnection, "org.veltra.tv.tallyra.service", "/org/veltra/tv/tallyra/service",
        "org.veltra.tv.tallyra.client", "TYCallFunction", receiver::EncodeBody(values), nullptr,
        G_DBUS_CALL_FLAGS_NO_AUTO_START, kCallTimeoutMs, nullptr, &OnAnswer, this);
}

void CCaller::Send(const std::vector<receiver::Value>& values) {
    GDBusMessage* pMessage = g_dbus_message_new_method_call(
        "org.veltra.tv.tallyra.service", "/org/veltra/tv/tallyra/service",
        "org.veltra.tv.tallyra.client", "TYCallFunction");
    g_dbus_message_set_body(pMessage, receiver::EncodeBody(values));
    g_dbus_message_set_flags(pMessage, G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED);
    g_dbus_connection_send_message(m_pConnection, pMessage, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(pMessage);
}

void CCaller::OnAnswer(GObject* pSource, GAsyncResult* pResult, gpointer pUserData) {
    GError* pError = nullptr;
    GVariant* pReply = g_dbus_connection_call_finish(G_DBUS_CONNECTION(pSource), pResult, &pError);
    static_cast<CCaller*>(pUserData)->m_Answers.push_back(pReply == nullptr ? TakeError(pError)
                                                                            : TakeText(pReply));
}

std::size_t CCaller::CountAnswers(const std::string& text) {
    while (m_Answers.size() < m_nBegun) {
        g_main_context_iteration(nullptr, TRUE);
    }
    return static_cast<std::size_t>(std::count(m_Answers.begin(), m_Answers.end(), text));
}

void CCaller::WaitForTheBus() {
    g_dbus_connection_flush_sync(m_pConnection, nullptr, nullptr);
    g_variant_unref(g_dbus_connection_call_sync(
        m_pConnection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, kCallTimeoutMs, nullptr, nullptr));
}

std::vector<receiver::Value> MakeCall(const std::string& playback, const std::vector<int>& codes) {
    std::vector<receiver::Value> values = {"SendData"};
    for (const int code : codes) {
        const TYMediaData record = MakeRecord(code, playback);
        const std::string_view image = ImageOf(record);
        values.emplace_back(receiver::Bytes(image.begin(), image.end()));
    }
    values.insert(values.end(), codes.size(), "film.mp4");
    return values;
}

std::vector<std::string> CDaemonTest::Arguments(const std::vector<std::string>& more) const {
    std::vector<std::string> arguments = {"--address", m_Bus.Address(), "--db", m_File};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

void CDaemonTest::Start(const std::vector<std::string>& more) {
    m_pDaemon = std::make_unique<CDaemon>(m_Folder.Path(), Arguments(more));
    ASSERT_TRUE(m_pDaemon->WaitUntilReady());
}
