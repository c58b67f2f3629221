// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"

#include "ChildProcess.h"
#include "Eventually.h"
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
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

constexpr const char* kAllowEverything =
    "<policy context=\"default\">\n"
    "    <allow user=\"*\"/>\n"
    "    <allow own=\"*\"/>\n"
    "    <allow send_destination=\"*\"/>\n"
    "    <allow receive_sender=\"*\"/>\n"
    "  </policy>\n";

std::string Configuration(const std::string& strAddress, const std::string& strPolicy,
                          const std::string& strType) {
    return "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>" +
           strType + "</type>\n  <listen>" + strAddress +
           "</listen>\n"
           "  <auth>EXTERNAL</auth>\n  " +
           strPolicy + "</busconfig>\n";
}

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
std::unique_ptr<CChildProcess> StartLauncher(const std::filesystem::path& configuration,
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

CPrivateBus::CPrivateBus() : CPrivateBus(kAllowEverything) {}

CPrivateBus::CPrivateBus(const std::string& policy, const std::string& type) {
    // Other users have to reach the socket.
    std::filesystem::permissions(m_Folder.Path(), std::filesystem::perms(0755));
    m_Folder.Write("bus.conf", Configuration(m_strAddress, policy, type));
    Launch();
}

CPrivateBus::~CPrivateBus() {
    Stop();
}

bool CPrivateBus::IsBroker() {
    const char* pWanted = std::getenv("TALLYRA_TEST_BUS");
    return pWanted != nullptr && std::string_view(pWanted) == "dbus-broker";
}

pid_t CPrivateBus::Pid() const {
    if (m_pProcess == nullptr) {
        return -1;
    }
    return m_nBroker > 0 ? m_nBroker : m_pProcess->Pid();
}

void CPrivateBus::BecomeSystemBus() const {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_strAddress.c_str(), 1);
}

void CPrivateBus::Stop() {
    m_pProcess.reset();
    // Without its launcher the broker is a child of this process (PR_SET_CHILD_SUBREAPER).
    if (m_nBroker > 0) {
        kill(m_nBroker, SIGKILL);
        while (waitpid(m_nBroker, nullptr, 0) < 0 && errno == EINTR) {
        }
        m_nBroker = -1;
    }
}

void CPrivateBus::Restart() {
    Stop();
    Launch();
}

void CPrivateBus::Pause() {
    if (Pid() > 0) {
        PauseProcess(Pid());
    }
}

void CPrivateBus::Resume() {
    if (Pid() > 0) {
        kill(Pid(), SIGCONT);
    }
}

void CPrivateBus::Launch() {
    // A killed bus leaves its socket behind, and the address that it printed.
    std::filesystem::remove(SocketPath());
    std::filesystem::remove(m_Folder.Path() / "address");
    const std::filesystem::path configuration = m_Folder.Path() / "bus.conf";
    if (IsBroker()) {
        LaunchBroker(configuration);
    } else {
        LaunchDaemon(configuration);
    }
}

void CPrivateBus::LaunchDaemon(const std::string& configuration) {
    m_pProcess = std::make_unique<CChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--config-file=" + configuration, "--print-address=1"},
        ChildOptions{.output = m_Folder.Path() / "address"});
    // The bus prints its address once it listens.
    const auto hasEnded = [this] {
        return m_pProcess->WaitForExit(std::chrono::milliseconds(0)).has_value();
    };
    const bool said =
        Eventually([&] { return hasEnded() || m_Folder.Read("address").ends_with('\n'); });
    if (!said || hasEnded()) {
        m_pProcess.reset();
        throw std::runtime_error("dbus-daemon does not start: is it installed?");
    }
}

// As systemd does: with a listening socket. The launcher fails on a machine without a journal.
void CPrivateBus::LaunchBroker(const std::string& configuration) {
    const sockaddr_un address = ToAddress(SocketPath());
    const auto* pAddress = reinterpret_cast<const sockaddr*>(&address);
    const CSocket listener;
    const CSocket client;
    Check(bind(listener.Fd(), pAddress, sizeof(address)), "bind");
    Check(listen(listener.Fd(), SOMAXCONN), "listen");
    Check(connect(client.Fd(), pAddress, sizeof(address)), "connect");
    Check(prctl(PR_SET_CHILD_SUBREAPER, 1), "prctl");
    m_pProcess = StartLauncher(configuration, listener, SocketPath());
    if (!WaitForAnswer(client, *m_pProcess)) {
        throw std::runtime_error("dbus-broker does not start: is there a journal to log to?");
    }
    m_nBroker = OnlyChildOf(m_pProcess->Pid());
    std::filesystem::permissions(SocketPath(), std::filesystem::perms(0777));
}
