// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Processes.h"

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace {

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

// Runs between fork and exec.
void EndWithParent(gpointer /*none*/) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
}

}  // namespace

CProcesses::CProcesses() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

CProcesses::~CProcesses() {
    EndAllBut({});
}

pid_t CProcesses::Start(const std::vector<std::string>& command, char** environment) {
    std::vector<std::string> copies = command;
    std::vector<char*> arguments;
    for (std::string& argument : copies) {
        arguments.push_back(argument.data());
    }
    arguments.push_back(nullptr);
    constexpr auto kFlags = static_cast<GSpawnFlags>(
        G_SPAWN_DO_NOT_REAP_CHILD | G_SPAWN_SEARCH_PATH | G_SPAWN_CHILD_INHERITS_STDIN);
    GPid pid = 0;
    GError* pError = nullptr;
    if (g_spawn_async(nullptr, arguments.data(), environment, kFlags, &EndWithParent, nullptr, &pid,
                      &pError) == FALSE) {
        const std::string text = pError->message;
        g_error_free(pError);
        throw std::runtime_error(text);
    }
    return pid;
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

// The children of a killed process become children of this one.
void CProcesses::EndAllBut(const std::set<pid_t>& others) {
    bool found = true;
    while (found) {
        found = false;
        for (const pid_t child : Children()) {
            if (!others.contains(child)) {
                found = true;
                kill(child, SIGKILL);
                waitpid(child, nullptr, 0);
            }
        }
    }
}

// Ctrl-C at a terminal must not reach the bus, which the program still needs to end in order. So
// the bus inherits a blocked SIGINT.
CPrivateDaemon::CPrivateDaemon() {
    if (gchar* pPath = g_find_program_in_path("dbus-daemon"); pPath != nullptr) {
        g_free(pPath);
    } else {
        throw std::runtime_error("dbus-daemon is not installed, or not in PATH");
    }
    sigset_t interrupt;
    sigset_t before;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &before);
    m_pBus = g_test_dbus_new(G_TEST_DBUS_NONE);
    g_test_dbus_up(m_pBus);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The bus is killed, at the latest with the other children, before it may have removed its socket.
CPrivateDaemon::~CPrivateDaemon() {
    constexpr std::string_view kPath = "unix:path=";
    const std::string address = Address();
    g_test_dbus_down(m_pBus);
    g_object_unref(m_pBus);
    if (address.starts_with(kPath)) {
        std::error_code ignored;
        std::filesystem::remove(address.substr(kPath.size(), address.find(',') - kPath.size()),
                                ignored);
    }
}
