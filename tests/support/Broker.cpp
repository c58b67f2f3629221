// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Broker.h"

#include "ChildProcess.h"
#include "Proc.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

constexpr int kStartLimitMs = 20'000;
constexpr int kStepMs = 100;

class CSocket {
  public:
    CSocket() : m_nFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {}
    ~CSocket() { close(m_nFd); }
    CSocket(const CSocket&) = delete;
    CSocket& operator=(const CSocket&) = delete;

    int Fd() const { return m_nFd; }

  private:
    int m_nFd;
};

void Check(int nResult, const char* pCall) {
    if (nResult != 0) {
        throw std::system_error(errno, std::generic_category(), pCall);
    }
}

sockaddr_un ToAddress(const std::filesystem::path& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// The launcher takes its socket as descriptor 3, and only if LISTEN_PID is its own process: so a
// shell sets both and then becomes the launcher. The launcher also connects to its own bus.
std::unique_ptr<CChildProcess> Launch(const std::filesystem::path& configuration,
                                      const CSocket& listener,
                                      const std::filesystem::path& socketPath) {
    const std::string strCommand =
        "exec 3<&" + std::to_string(listener.Fd()) +
        " && DBUS_SESSION_BUS_ADDRESS='unix:path=" + socketPath.string() +
        "' LISTEN_FDS=1 LISTEN_PID=$$ exec dbus-broker-launch --scope user --config-file '" +
        configuration.string() + "'";
    return std::make_unique<CChildProcess>(std::vector<std::string>{"bash", "-c", strCommand},
                                           ChildOptions{.keepFds = {listener.Fd()}});
}

// The broker replies to a client's first line once it has the socket. Until then the connection
// waits, even after the launcher has failed.
bool WaitForAnswer(const CSocket& client, CChildProcess& launcher) {
    constexpr std::string_view kHello("\0AUTH\r\n", 7);
    Check(write(client.Fd(), kHello.data(), kHello.size()) < 0 ? -1 : 0, "write");
    for (int nWaited = 0; nWaited < kStartLimitMs; nWaited += kStepMs) {
        pollfd waited = {client.Fd(), POLLIN, 0};
        char cRead = 0;
        if (poll(&waited, 1, kStepMs) > 0) {
            return read(waited.fd, &cRead, 1) == 1;
        }
        if (launcher.WaitForExit(std::chrono::milliseconds(0))) {
            return false;
        }
    }
    return false;
}

pid_t OnlyChildOf(pid_t nPid) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        if (std::isdigit(entry.path().filename().c_str()[0]) != 0 &&
            ReadProcStat(std::stoi(entry.path().filename())).parent == nPid) {
            return std::stoi(entry.path().filename());
        }
    }
    throw std::runtime_error("dbus-broker does not run");
}

}  // namespace

CBroker::CBroker(const std::filesystem::path& configuration,
                 const std::filesystem::path& socketPath) {
    const sockaddr_un address = ToAddress(socketPath);
    const auto* pAddress = reinterpret_cast<const sockaddr*>(&address);
    const CSocket listener;
    const CSocket client;
    Check(bind(listener.Fd(), pAddress, sizeof(address)), "bind");
    Check(listen(listener.Fd(), SOMAXCONN), "listen");
    Check(connect(client.Fd(), pAddress, sizeof(address)), "connect");
    Check(prctl(PR_SET_CHILD_SUBREAPER, 1), "prctl");
    m_pLauncher = Launch(configuration, listener, socketPath);
    if (!WaitForAnswer(client, *m_pLauncher)) {
        throw std::runtime_error("dbus-broker does not start: is there a journal to log to?");
    }
    m_nBroker = OnlyChildOf(m_pLauncher->Pid());
}

CBroker::~CBroker() {
    // Without its launcher the broker is a child of this process (PR_SET_CHILD_SUBREAPER).
    m_pLauncher.reset();
    kill(m_nBroker, SIGKILL);
    while (waitpid(m_nBroker, nullptr, 0) < 0 && errno == EINTR) {
    }
}
