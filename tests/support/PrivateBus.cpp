// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"

#include "ChildProcess.h"
#include "Eventually.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

namespace {

constexpr const char* kAllowEverything =
    "<policy context='default'><allow user='*'/><allow own='*'/><allow send_destination='*'/>"
    "<allow receive_sender='*'/></policy>";

std::string Configuration(const std::string& strAddress, const std::string& strPolicy,
                          const std::string& strType) {
    return "<busconfig><type>" + strType + "</type><listen>" + strAddress +
           "</listen><auth>EXTERNAL</auth>" + (strPolicy.empty() ? kAllowEverything : strPolicy) +
           "</busconfig>";
}

using Connect = int(int, const sockaddr*, socklen_t);

// Opens a socket and binds or connects it to the path.
int OpenSocket(const std::filesystem::path& path, Connect* pConnect, int nFlags = 0) {
    sockaddr_un address = {AF_UNIX, {}};
    path.string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (pConnect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        fcntl(fd, F_SETFL, nFlags) != 0) {
        throw std::system_error(errno, std::generic_category(), path);
    }
    return fd;
}

// The launcher takes its socket as descriptor 3, and only if LISTEN_PID is its own process: so a
// shell sets both and then becomes the launcher. The launcher also connects to its own bus.
std::unique_ptr<CChildProcess> StartLauncher(const std::filesystem::path& configuration,
                                             int listener,
                                             const std::filesystem::path& socketPath) {
    const std::string strCommand =
        "exec 3<&" + std::to_string(listener) +
        " && DBUS_SESSION_BUS_ADDRESS='unix:path=" + socketPath.string() +
        "' LISTEN_FDS=1 LISTEN_PID=$$ exec dbus-broker-launch --scope user --config-file '" +
        configuration.string() + "'";
    return std::make_unique<CChildProcess>(std::vector<std::string>{"bash", "-c", strCommand},
                                           ChildOptions{.keepFds = {listener}});
}

// The broker replies to a client's first line once it has the socket. Until then the connection
// waits, even after the launcher has failed.
bool WaitForAnswer(int client, CChildProcess& launcher) {
    constexpr std::string_view kHello("\0AUTH\r\n", 7);
    bool bAnswers = false;
    if (write(client, kHello.data(), kHello.size()) < 0) {
        return false;
    }
    Eventually([&] {
        char cRead = 0;
        bAnswers = read(client, &cRead, 1) == 1;
        return bAnswers || launcher.WaitForExit({});
    });
    return bAnswers;
}

pid_t OnlyChildOf(pid_t nPid) {
    const std::string strPid = std::to_string(nPid);
    pid_t nChild = -1;
    std::ifstream("/proc/" + strPid + "/task/" + strPid + "/children") >> nChild;
    return nChild;
}

}  // namespace

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
    Eventually(
        [&] { return m_Folder.Read("address").ends_with('\n') || m_pProcess->WaitForExit({}); });
    if (m_pProcess->WaitForExit({}) || m_Folder.Read("address").empty()) {
        m_pProcess.reset();
        throw std::runtime_error("dbus-daemon does not start: is it installed?");
    }
}

// As systemd does: with a listening socket. The launcher fails on a machine without a journal.
void CPrivateBus::LaunchBroker(const std::string& configuration) {
    const int listener = OpenSocket(SocketPath(), &bind);
    listen(listener, SOMAXCONN);
    const int client = OpenSocket(SocketPath(), &connect, O_NONBLOCK);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    m_pProcess = StartLauncher(configuration, listener, SocketPath());
    const bool bAnswers = WaitForAnswer(client, *m_pProcess);
    close(listener);
    close(client);
    m_nBroker = OnlyChildOf(m_pProcess->Pid());
    if (!bAnswers || m_nBroker < 0) {
        throw std::runtime_error("dbus-broker does not start: is there a journal to log to?");
    }
    std::filesystem::permissions(SocketPath(), std::filesystem::perms(0777));
}
