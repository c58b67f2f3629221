// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ConfiguredBus.h"

#include "Program.h"

#include <filesystem>
#include <stdexcept>
#include <string_view>

namespace {

// What a system's bus begins with.
constexpr const char* kRules = R"(
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
)";

}  // namespace

CConfiguredBus::CConfiguredBus(const std::string& more, const std::string& type)
    : m_strAddress("unix:path=" + (m_Folder.Path() / "bus").string()) {
    std::filesystem::permissions(m_Folder.Path(), std::filesystem::perms(0755));
    m_Folder.Write("bus.conf",
                   "<!DOCTYPE busconfig PUBLIC"
                   " \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                   " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                   "<busconfig>\n  <type>" +
                       type + "</type>\n  <listen>" + m_strAddress + "</listen>" + kRules + more +
                       "</busconfig>\n");
    Launch(m_Folder.Path() / "bus.conf");
}

bool CConfiguredBus::IsBroker() {
    const char* pWanted = std::getenv("TALLYRA_TEST_BUS");
    return pWanted != nullptr && std::string_view(pWanted) == "dbus-broker";
}

void CConfiguredBus::Launch(const std::string& configuration) {
    const std::filesystem::path socket = m_Folder.Path() / "bus";
    if (IsBroker()) {
        m_pBroker = std::make_unique<CBroker>(configuration, socket);
        std::filesystem::permissions(socket, std::filesystem::perms(0777));
        return;
    }
    m_pDaemon = std::make_unique<CChildProcess>(std::vector<std::string>{
        "dbus-daemon", "--nofork", "--nopidfile", "--nosyslog", "--config-file=" + configuration});
    // It opens the socket to all users once it listens.
    if (!Eventually([&] {
            return std::filesystem::exists(socket) &&
                   std::filesystem::status(socket).permissions() == std::filesystem::perms(0777);
        })) {
        throw std::runtime_error("dbus-daemon does not start: is it installed?");
    }
}
