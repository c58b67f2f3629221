// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Session.h"

#include <glib-unix.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace {

// How long the program has to end after SIGTERM.
constexpr guint kGraceSeconds = 5;

constexpr const char* kPlatformLibrary = "libtallyra-testplatform.so." TALLYRA_MAJOR;

constexpr const char* kKeyVariable = "TALLYRA_TESTPLATFORM_KEY";

/// @return the library beside this program, as built or installed; otherwise its name, for which
///         the loader searches
std::filesystem::path PlatformLibrary() {
    std::error_code ignored;
    const std::filesystem::path prefix =
        std::filesystem::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
    for (const char* pFolder : {TALLYRA_LIBDIR, "lib"}) {
        std::filesystem::path library = prefix / pFolder / kPlatformLibrary;
        if (std::filesystem::exists(library, ignored)) {
            return library;
        }
    }
    return kPlatformLibrary;
}

}  // namespace

CSession::CSession(const Options& options)
    : m_Options(options), m_Lines(options.output), m_Responder(options.misbehaviours) {
    m_Receiver.emplace(
        m_Bus.Address(), [this](const receiver::Call& call, const auto&) { m_Lines.Add(call); },
        [this](const receiver::Call& call) { return m_Responder.Answer(call); });
    m_Receiver->OwnName();
}

int CSession::Run() {
    g_unix_signal_add(SIGINT, &OnSignal<SIGINT>, this);
    g_unix_signal_add(SIGTERM, &OnSignal<SIGTERM>, this);
    if (m_Options.command.empty()) {
        std::fprintf(stderr, "DBUS_SYSTEM_BUS_ADDRESS=%s\n", m_Bus.Address().c_str());
    } else if (!Start()) {
        return kExitNotStarted;
    }
    g_main_loop_run(m_pLoop.get());
    Finish();
    return m_Options.command.empty() ? 0 : m_Status.value_or(m_nProgramStatus);
}

bool CSession::Start() {
    try {
        m_nProgram = CProcesses::Start(m_Options.command, Environment());
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "tallyra-testservice: %s\n", error.what());
        return false;
    }
    m_nWatch = g_child_watch_add(m_nProgram, &OnExit, this);
    if (m_Options.timeoutSeconds > 0) {
        g_timeout_add_seconds(static_cast<guint>(m_Options.timeoutSeconds), &OnTimeout, this);
    }
    return true;
}

char** CSession::Environment() {
    SetVariable("DBUS_SYSTEM_BUS_ADDRESS", m_Bus.Address());
    if (m_Options.platform) {
        Preload(PlatformLibrary());
        if (g_environ_getenv(m_pEnvironment.get(), kKeyVariable) == nullptr) {
            SetVariable(kKeyVariable, "1");
        }
    }
    return m_pEnvironment.get();
}

void CSession::SetVariable(const char* pName, const std::string& value) {
    m_pEnvironment.reset(g_environ_setenv(m_pEnvironment.release(), pName, value.c_str(), TRUE));
}

// The loader takes a space in LD_PRELOAD for the end of a name, but not in LD_LIBRARY_PATH.
void CSession::Preload(const std::filesystem::path& library) {
    const auto before = [this](const char* pName) {
        const char* pText = g_environ_getenv(m_pEnvironment.get(), pName);
        return pText == nullptr ? std::string() : std::string(pText);
    };
    std::string name = library;
    if (name.find(' ') != std::string::npos) {
        const std::string others = before("LD_LIBRARY_PATH");
        SetVariable("LD_LIBRARY_PATH",
                    library.parent_path().string() + (others.empty() ? "" : ":" + others));
        name = library.filename();
    }
    // Last, because a sanitizer's runtime has to be the first.
    const std::string others = before("LD_PRELOAD");
    SetVariable("LD_PRELOAD", (others.empty() ? "" : others + ":") + name);
}

void CSession::OnExit(GPid /*pid*/, gint status, gpointer pThis) {
    auto& session = *static_cast<CSession*>(pThis);
    session.m_nWatch = 0;
    session.m_nProgramStatus =
        WIFEXITED(status) ? WEXITSTATUS(status) : kExitSignal + WTERMSIG(status);
    g_main_loop_quit(session.m_pLoop.get());
}

template <int Signal>
gboolean CSession::OnSignal(gpointer pThis) {
    static_cast<CSession*>(pThis)->End(kExitSignal + Signal);
    return G_SOURCE_CONTINUE;
}

gboolean CSession::OnTimeout(gpointer pThis) {
    const auto& session = *static_cast<CSession*>(pThis);
    std::fprintf(stderr, "tallyra-testservice: the program still runs after %d s\n",
                 session.m_Options.timeoutSeconds);
    static_cast<CSession*>(pThis)->End(kExitTimeout);
    return G_SOURCE_REMOVE;
}

// Lets the program end, and does not wait for it for long.
void CSession::End(int status) {
    const auto quit = [](gpointer pLoop) -> gboolean {
        g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
        return G_SOURCE_REMOVE;
    };
    if (m_nWatch == 0) {
        quit(m_pLoop.get());
    } else if (!m_Status) {
        m_Status = status;
        kill(m_nProgram, SIGTERM);
        g_timeout_add_seconds(kGraceSeconds, quit, m_pLoop.get());
    }
}

// Takes what the program has sent by now.
void CSession::Finish() {
    if (m_nWatch != 0) {
        g_source_remove(m_nWatch);
    }
    CProcesses::EndAllBut({m_Bus.Pid()});
    try {
        m_Receiver->ReleaseName();
    } catch (const std::runtime_error&) {
        // --gone: the service has left the bus.
    }
    m_Receiver.reset();
    m_Lines.End();
}
