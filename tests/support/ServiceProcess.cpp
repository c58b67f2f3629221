// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceProcess.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

// The socket that a program started by systemd reports to.
int MakeNotifySocket(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        throw std::system_error(errno, std::generic_category(), "bind " + path);
    }
    return fd;
}

std::vector<std::string> Arguments(const std::string& program, const std::string& address,
                                   const std::vector<std::string>& more) {
    std::vector<std::string> arguments{program, "--address", address};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return arguments;
}

ChildOptions WithFolder(ChildOptions options, const std::filesystem::path& folder) {
    options.environment.push_back("NOTIFY_SOCKET=" + (folder / "notify").string());
    options.output = folder / "output";
    return options;
}

}  // namespace

CServiceProcess::CServiceProcess(const std::string& program, const std::string& address,
                                 const std::vector<std::string>& more, const ChildOptions& options)
    : m_nNotifyFd(MakeNotifySocket(m_Folder.Path() / "notify")),
      m_Process(Arguments(program, address, more), WithFolder(options, m_Folder.Path())) {}

CServiceProcess::~CServiceProcess() {
    close(m_nNotifyFd);
}

bool CServiceProcess::HasSaidReady() {
    std::array<char, 256> message{};
    const ssize_t size = recv(m_nNotifyFd, message.data(), message.size(), 0);
    m_bReady = m_bReady ||
               std::string_view(message.data(), static_cast<std::size_t>(size > 0 ? size : 0)) ==
                   "READY=1" ||
               Output().find("ready on ") != std::string::npos;
    return m_bReady;
}

bool CServiceProcess::BecomesReady() {
    Eventually(
        [this] { return HasSaidReady() || m_Process.WaitForExit(std::chrono::milliseconds(0)); });
    return m_bReady;
}

void CServiceProcess::WaitUntilReady() {
    if (!BecomesReady()) {
        throw std::runtime_error("the service does not start");
    }
}

void CServiceProcess::Terminate() {
    Signal(SIGTERM);
    const std::optional<int> status = WaitForExit();
    if (status != 0) {
        throw std::runtime_error(status ? "the service ended with status " + std::to_string(*status)
                                        : "the service does not end");
    }
}
