// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_SESSION_H
#define TALLYRA_TESTKIT_SESSION_H

#include "Options.h"
#include "Processes.h"
#include "RecordLines.h"
#include "Responder.h"
#include "receiver/Receiver.h"

#include <glib.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

/// A bus, the service on it, and the program that runs on it.
///
/// Threads: the main thread, whose main loop waits for signals and for the program. The service
/// answers on a thread of GDBus. Until the receiver's end, only that thread uses the responder and
/// the lines.
class CSession {
  public:
    /// Starts the bus and the service.
    /// @throws std::runtime_error
    explicit CSession(const Options& options);

    /// Runs the program to its end; without a program, serves until a signal.
    /// @return the exit code of this process
    /// @throws std::runtime_error
    int Run();

  private:
    template <class Type, auto Free>
    struct Deleter {
        void operator()(Type* pObject) const { Free(pObject); }
    };
    template <class Type, auto Free>
    using Ptr = std::unique_ptr<Type, Deleter<Type, Free>>;

    bool Start();
    char** Environment();
    void SetVariable(const char* pName, const std::string& value);
    void Preload(const std::filesystem::path& library);
    void End(int status);
    void Finish();
    static void OnExit(GPid pid, gint status, gpointer pThis);
    template <int Signal>
    static gboolean OnSignal(gpointer pThis);
    static gboolean OnTimeout(gpointer pThis);

    const Options m_Options;
    Ptr<char*, g_strfreev> m_pEnvironment{g_get_environ()};
    const CProcesses m_Processes;
    const CPrivateDaemon m_Bus;
    CRecordLines m_Lines;
    CResponder m_Responder;
    const Ptr<GMainLoop, g_main_loop_unref> m_pLoop{g_main_loop_new(nullptr, FALSE)};
    std::optional<receiver::CReceiver> m_Receiver;
    pid_t m_nProgram = 0;
    guint m_nWatch = 0;           ///< waits for the program
    std::optional<int> m_Status;  ///< why this process ended the program
    int m_nProgramStatus = 0;
};

#endif  // TALLYRA_TESTKIT_SESSION_H
