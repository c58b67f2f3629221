// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Processes.h"

#include <gio/gio.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int kBusStartMs = 10'000;

// Allows everything.
constexpr const char* kConfiguration =
    "<busconfig><type>session</type><listen>%s</listen><auth>EXTERNAL</auth>"
    "<policy context='default'><allow user='*'/><allow own='*'/>"
    "<allow send_destination='*' eavesdrop='true'/><allow eavesdrop='true'/></policy></busconfig>";

/// @return the parent of a process; 0 if it has ended
pid_t ParentOf(const std::filesystem::path& process) {
    std::ifstream file(process / "stat");
    const std::string text(std::istreambuf_iterator<char>(file), {});
    // The name before the last parenthesis may contain anything.
    const std::size_t end = text.rfind(')');
    char state = 0;
    pid_t parent = 0;
    if (end == std::string::npos ||
        std::sscanf(text.c_str() + end + 1, " %c %d", &state, &parent) != 2) {
        return 0;
    }
    return parent;
}

void ThrowIf(GError* pError) {
    if (pError != nullptr) {
        const std::string text = pError->message;
        g_error_free(pError);
        throw std::runtime_error(text);
    }
}

// Both run between fork and exec.
void EndWithParent(gpointer /*none*/) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

// Ctrl-C and timeout(1) signal a whole group of processes. The bus is in no group of the program,
// which still needs it to end in order.
void LeaveGroup(gpointer pNone) {
    setsid();
    EndWithParent(pNone);
}

/// @param pOutput  receives the end of a pipe that the program writes to; null: it shares ours
pid_t Spawn(std::vector<std::string> command, char** environment, GSpawnChildSetupFunc setUp,
            int* pOutput) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& argument : command) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    constexpr auto kFlags = static_cast<GSpawnFlags>(
        G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH | G_SPAWN_CHILD_INHERITS_STDIN);
    GPid pid = 0;
    GError* pError = nullptr;
    g_spawn_async_with_pipes(nullptr, arguments.data(), environment, kFlags, setUp, nullptr, &pid,
                             nullptr, pOutput, nullptr, &pError);
    ThrowIf(pError);
    return pid;
}

/// @return what comes up to the end of the line, or in time
std::string ReadLine(int fd) {
    std::string line;
    char next = 0;
    pollfd readable = {fd, POLLIN, 0};
    while (poll(&readable, 1, kBusStartMs) == 1 && read(fd, &next, 1) == 1 && next != '\n') {
        line += next;
    }
    return line;
}

/// @return the text, freed
std::string Take(gchar* pText) {
    std::string text = pText;
    g_free(pText);
    return text;
}

std::filesystem::path MakeFolder() {
    GError* pError = nullptr;
    gchar* pName = g_dir_make_tmp("tallyra-testservice-XXXXXX", &pError);
    ThrowIf(pError);
    return Take(pName);
}

}  // namespace

CProcesses::CProcesses() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

CProcesses::~CProcesses() {
    EndAllBut({});
}

pid_t CProcesses::Start(const std::vector<std::string>& command, char** environment) {
    return Spawn(command, environment, &EndWithParent, nullptr);
}

std::set<pid_t> CProcesses::Children() {
    std::set<pid_t> children;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename();
        if (std::isdigit(static_cast<unsigned char>(name.front())) != 0 &&
            ParentOf(entry.path()) == getpid()) {
            children.insert(static_cast<pid_t>(std::atol(name.c_str())));
        }
    }
    return children;
}

// The children of a killed process become children of this one. A program may have a right that
// this process does not have, as after sudo: it cannot be killed, and is not waited for.
void CProcesses::EndAllBut(std::set<pid_t> others) {
    bool found = true;
    while (found) {
        found = false;
        for (const pid_t child : Children()) {
            if (!others.contains(child)) {
                found = true;
                if (kill(child, SIGKILL) != 0 && errno == EPERM) {
                    others.insert(child);
                } else {
                    waitpid(child, nullptr, 0);
                }
            }
        }
    }
}

CPrivateDaemon::CPrivateDaemon() : m_Folder(MakeFolder()) {
    try {
        Start();
    } catch (const std::exception&) {
        std::filesystem::remove_all(m_Folder);
        throw;
    }
}

CPrivateDaemon::~CPrivateDaemon() {
    kill(m_nPid, SIGKILL);
    waitpid(m_nPid, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(m_Folder, ignored);
}

void CPrivateDaemon::Start() {
    const std::filesystem::path configuration = m_Folder / "bus.conf";
    const std::string address =
        "unix:path=" + Take(g_dbus_address_escape_value((m_Folder / "socket").c_str()));
    std::ofstream(configuration) << Take(g_markup_printf_escaped(kConfiguration, address.c_str()));
    int output = -1;
    m_nPid = Spawn({"dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                    "--config-file=" + configuration.string()},
                   nullptr, &LeaveGroup, &output);
    m_Address = ReadLine(output);
    close(output);
    if (m_Address.empty()) {
        kill(m_nPid, SIGKILL);
        waitpid(m_nPid, nullptr, 0);
        throw std::runtime_error("dbus-daemon does not start");
    }
}
