// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PrivateBus.h"

#include "Broker.h"
#include "ChildProcess.h"
#include "Eventually.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string_view>

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

}  // namespace

CPrivateBus::CPrivateBus() : CPrivateBus(kAllowEverything) {}

CPrivateBus::CPrivateBus(const std::string& policy, const std::string& type) {
    // Other users have to reach the socket.
    std::filesystem::permissions(m_Folder.Path(), std::filesystem::perms(0755));
    m_Folder.Write("bus.conf", Configuration(m_strAddress, policy, type));
    Launch();
}

bool CPrivateBus::IsBroker() {
    const char* pWanted = std::getenv("TALLYRA_TEST_BUS");
    return pWanted != nullptr && std::string_view(pWanted) == "dbus-broker";
}

CPrivateBus::~CPrivateBus() = default;

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
        m_pBroker = std::make_unique<CBroker>(configuration, SocketPath());
        std::filesystem::permissions(SocketPath(), std::filesystem::perms(0777));
    } else {
        LaunchDaemon(configuration);
    }
}

void CPrivateBus::LaunchDaemon(const std::string& configuration) {
    // A restarted bus must not be taken to listen because the one before it has printed its
    // address.
    std::filesystem::remove(m_Folder.Path() / "address");
    m_pDaemon = std::make_unique<CChildProcess>(
        std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                                 "--config-file=" + configuration, "--print-address=1"},
        ChildOptions{.output = m_Folder.Path() / "address"});
    // The bus prints its address once it listens.
    const bool ended = !Eventually([this] {
        return m_pDaemon->WaitForExit(std::chrono::milliseconds(0)) ||
               m_Folder.Read("address").ends_with('\n');
    });
    if (ended || m_pDaemon->WaitForExit(std::chrono::milliseconds(0))) {
        m_pDaemon.reset();
        throw std::runtime_error("dbus-daemon does not start: is it installed?");
    }
}
