// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"

#include "Broker.h"
#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStartLimit{20};

std::filesystem::path MakeFolder() {
    std::string strTemplate = (std::filesystem::temp_directory_path() / "tallyra-bus-XXXXXX");
    if (mkdtemp(strTemplate.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    return strTemplate;
}

void WriteConfiguration(const std::filesystem::path& file, const std::string& strAddress) {
    std::ofstream stream(file);
    stream << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
              " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
              "<busconfig>\n"
              "  <type>system</type>\n"
              "  <listen>"
           << strAddress
           << "</listen>\n"
              "  <auth>EXTERNAL</auth>\n"
              "  <policy context=\"default\">\n"
              "    <allow user=\"*\"/>\n"
              "    <allow own=\"*\"/>\n"
              "    <allow send_destination=\"*\"/>\n"
              "    <allow receive_sender=\"*\"/>\n"
              "  </policy>\n"
              "</busconfig>\n";
    if (!stream.flush()) {
        throw std::runtime_error("cannot write " + file.string());
    }
}

class CPipe {
  public:
    CPipe() {
        if (pipe2(m_fds.data(), O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
    }
    ~CPipe() {
        CloseWriter();
        close(m_fds[0]);
    }
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;

    int Reader() const { return m_fds[0]; }
    int Writer() const { return m_fds[1]; }
    // With our own copy closed, the reader sees the end when the child goes.
    void CloseWriter() {
        if (m_fds[1] >= 0) {
            close(m_fds[1]);
            m_fds[1] = -1;
        }
    }

  private:
    std::array<int, 2> m_fds = {-1, -1};
};

// The bus writes its address, and a line end, when it listens.
bool ReadLine(int nFd, Clock::time_point deadline) {
    char cRead = 0;
    while (cRead != '\n') {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited = {nFd, POLLIN, 0};
        if (left <= 0 || (poll(&waited, 1, static_cast<int>(left)) < 0 && errno != EINTR)) {
            return false;
        }
        if (waited.revents != 0 && read(nFd, &cRead, 1) <= 0) {
            return false;
        }
    }
    return true;
}

bool IsBrokerWanted() {
    const char* pWanted = std::getenv("TALLYRA_TEST_BUS");
    return pWanted != nullptr && std::string_view(pWanted) == "dbus-broker";
}

// The state of a process as the kernel gives it behind the process's name: T is stopped.
char StateOf(pid_t nPid) {
    std::ifstream stat("/proc/" + std::to_string(nPid) + "/stat");
    std::string strIgnored;
    char cState = 'T';
    std::getline(stat, strIgnored, ')') >> cState;
    return cState;
}

}  // namespace

CPrivateBus::CPrivateBus() : m_folder(MakeFolder()) {
    m_strAddress = "unix:path=" + SocketPath().string();
    try {
        WriteConfiguration(m_folder / "bus.conf", m_strAddress);
        Launch();
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
        throw;
    }
}

CPrivateBus::~CPrivateBus() {
    Stop();
    std::error_code ignored;
    std::filesystem::remove_all(m_folder, ignored);
}

pid_t CPrivateBus::Pid() const {
    if (m_pBroker) {
        return m_pBroker->Pid();
    }
    return m_pDaemon ? m_pDaemon->Pid() : -1;
}

void CPrivateBus::BecomeSystemBus() const {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", m_strAddress.c_str(), 1);
}

void CPrivateBus::Stop() {
    m_pDaemon.reset();
    m_pBroker.reset();
}

void CPrivateBus::Restart() {
    Stop();
    Launch();
}

void CPrivateBus::Pause() {
    if (Pid() < 0) {
        return;
    }
    kill(Pid(), SIGSTOP);
    while (StateOf(Pid()) != 'T') {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CPrivateBus::Resume() {
    if (Pid() > 0) {
        kill(Pid(), SIGCONT);
    }
}

void CPrivateBus::Launch() {
    // A killed bus leaves its socket behind.
    std::filesystem::remove(SocketPath());
    if (IsBrokerWanted()) {
        m_pBroker = std::make_unique<CBroker>(m_folder / "bus.conf", SocketPath());
    } else {
        LaunchDaemon();
    }
}

void CPrivateBus::LaunchDaemon() {
    CPipe ready;
    m_pDaemon = std::make_unique<CChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--config-file=" + (m_folder / "bus.conf").string(),
                                 "--print-address=" + std::to_string(ready.Writer())},
        std::vector<int>{ready.Writer()});
    ready.CloseWriter();
    if (!ReadLine(ready.Reader(), Clock::now() + kStartLimit)) {
        m_pDaemon.reset();
        throw std::runtime_error("dbus-daemon does not start: is it installed?");
    }
}
