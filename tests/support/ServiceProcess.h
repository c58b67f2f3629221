// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H
#define TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H

#include "ChildProcess.h"
#include "Eventually.h"
#include "TemporaryFolder.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// tallyra-service or tallyra-receiver in a process of its own. The destructor kills it.
///
/// Threads: the one that created it.
class CServiceProcess {
  public:
    /// Starts the program. It need not be ready when the constructor returns.
    /// @param address  names the bus; becomes the option --address
    /// @param more     holds the program's other arguments
    /// @param options  Output() reads standard output, so it cannot be redirected
    CServiceProcess(const std::string& program, const std::string& address,
                    const std::vector<std::string>& more = {}, ChildOptions options = {})
        : m_Process(Arguments(program, address, more), WithFolder(std::move(options))) {}
    ~CServiceProcess() { close(m_nNotifyFd); }
    CServiceProcess(const CServiceProcess&) = delete;
    CServiceProcess& operator=(const CServiceProcess&) = delete;

    /// Waits until the program owns its name and answers calls: tallyra-service tells the service
    /// manager's socket, tallyra-receiver prints a line.
    /// @throws std::runtime_error  when it ended instead, or was not ready within the patience
    void WaitUntilReady() {
        if (!Eventually([this] { return HasSaidReady() || WaitForExit({}); }) || WaitForExit({})) {
            throw std::runtime_error("the service does not start");
        }
    }

    pid_t Pid() const { return m_Process.Pid(); }
    void Signal(int nSignal) const { m_Process.Signal(nSignal); }
    /// Stops the process with SIGSTOP: it keeps its name, and calls to it wait.
    void Pause() const { m_Process.Pause(); }
    void Resume() const { m_Process.Resume(); }
    void Kill() { m_Process.Kill(); }
    std::optional<int> WaitForExit(std::chrono::milliseconds within = kPatience) {
        return m_Process.WaitForExit(within);
    }

    /// Sends SIGTERM and waits for the end.
    /// @throws std::runtime_error  when it does not end with status 0 within the patience
    void Terminate() {
        Signal(SIGTERM);
        if (WaitForExit() != 0) {
            throw std::runtime_error("the service does not end with status 0");
        }
    }

    /// @return whether the program has sent the service manager an assignment that begins so,
    ///         since the last one that was asked for
    bool HasNotified(const std::string& begin) const {
        std::array<char, 256> message{};
        while (recv(m_nNotifyFd, message.data(), message.size() - 1, 0) > 0) {
            if (std::string(message.data()).starts_with(begin)) {
                return true;
            }
            message.fill('\0');
        }
        return false;
    }

    /// @return what the program has printed so far
    std::string Output() const { return m_Folder.Read("output"); }

  private:
    static std::vector<std::string> Arguments(const std::string& program,
                                              const std::string& address,
                                              std::vector<std::string> more) {
        more.insert(more.begin(), {program, "--address", address});
        return more;
    }

    ChildOptions WithFolder(ChildOptions options) const {
        options.environment.push_back("NOTIFY_SOCKET=" + (m_Folder.Path() / "notify").string());
        options.output = m_Folder.Path() / "output";
        return options;
    }

    /// @return the socket that a program started by systemd reports to
    int MakeNotifySocket() const {
        sockaddr_un address{AF_UNIX, {}};
        const std::string path = m_Folder.Path() / "notify";
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            throw std::runtime_error("cannot bind " + path);
        }
        return fd;
    }

    bool HasSaidReady() const {
        std::array<char, 256> message{};
        recv(m_nNotifyFd, message.data(), message.size() - 1, 0);
        return std::string(message.data()) == "READY=1" ||
               Output().find("ready on ") != std::string::npos;
    }

    const CTemporaryFolder m_Folder;
    const int m_nNotifyFd = MakeNotifySocket();
    CChildProcess m_Process;
};

#endif  // TALLYRA_TESTS_SUPPORT_SERVICEPROCESS_H
