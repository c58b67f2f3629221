// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_SERVICE_DAEMONFIXTURE_H
#define TALLYRA_TESTS_SERVICE_DAEMONFIXTURE_H

#include "ChildProcess.h"
#include "Eventually.h"
#include "PrivateBus.h"
#include "Samples.h"
#include "TemporaryFolder.h"
#include "receiver/Wire.h"

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/// A descriptor that is closed with its owner.
class CFd {
  public:
    explicit CFd(int fd = -1) : m_nFd(fd) {}
    ~CFd() { Take(-1); }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;

    int Get() const { return m_nFd; }
    /// Closes it and owns another one.
    void Take(int fd);

  private:
    int m_nFd;
};

/// The service's program, with what it logs and whether it said that it is ready.
class CDaemon {
  public:
    /// Starts it.
    CDaemon(const std::filesystem::path& folder, const std::vector<std::string>& arguments);

    /// @return whether it told the service manager that it serves
    bool WaitUntilReady();
    /// @return whether it logged this text, as often as that, before the patience was over
    bool WaitForLog(const std::string& text, std::size_t count = 1);
    /// @return everything that it logged; waits for its end
    std::string AllLog();
    std::optional<int> WaitForExit() { return m_pProcess->WaitForExit(kPatience); }
    void Signal(int signal) const { m_pProcess->Signal(signal); }
    pid_t Pid() const { return m_pProcess->Pid(); }

  private:
    bool ReadLog(std::chrono::steady_clock::time_point deadline);

    CFd m_Notify;
    CFd m_LogReader;
    std::string m_strLog;
    std::unique_ptr<CChildProcess> m_pProcess;
};

/// A caller on the bus, over a library that has nothing in common with the service's.
class CCaller {
  public:
    explicit CCaller(const std::string& address);
    ~CCaller() { g_object_unref(m_pConnection); }
    CCaller(const CCaller&) = delete;
    CCaller& operator=(const CCaller&) = delete;

    /// Makes a call of the service's method.
    /// @return the reply in its text form, or the name of the error
    std::string Call(GVariant* pBody, const char* pMember = "TYCallFunction",
                     const char* pPath = "/org/veltra/tv/tallyra/service",
                     const char* pInterface = "org.veltra.tv.tallyra.client");
    std::string Call(const std::vector<receiver::Value>& values) {
        return Call(receiver::EncodeBody(values));
    }
    /// Sends a call without waiting for its reply.
    void Begin(const std::vector<receiver::Value>& values);
    /// Makes a call that asks for no reply.
    void Send(const std::vector<receiver::Value>& values);
    /// @return how many of the calls begun were answered by this text form; waits for all of them
    std::size_t CountAnswers(const std::string& text);
    /// Waits until the bus has passed on all that was sent.
    void WaitForTheBus();

    std::string Name() const { return g_dbus_connection_get_unique_name(m_pConnection); }

  private:
    static void OnAnswer(GObject* pSource, GAsyncResult* pResult, gpointer pUserData);

    GDBusConnection* m_pConnection;
    std::size_t m_nBegun = 0;
    std::vector<std::string> m_Answers;
};

/// @return the arguments of "SendData" with one record of each code, for a playback
std::vector<receiver::Value> MakeCall(const std::string& playback, const std::vector<int>& codes);

constexpr const char* kAccepted = "(0, 0, 1, 1, 0, 1)";
constexpr const char* kRefused = "(0, 0, 0)";
constexpr const char* kRefusedBatch = "(0, 0, 1, 1, 0, 0)";

/// A bus, the program, its file and a caller, all real.
class CDaemonTest : public testing::Test {
  protected:
    /// Starts the service and waits until it is ready.
    void Start(const std::vector<std::string>& more = {});
    std::vector<std::string> Arguments(const std::vector<std::string>& more) const;
    CFileReader Read() const { return CFileReader(m_File); }

    CPrivateBus m_Bus;
    CTemporaryFolder m_Folder;
    const std::filesystem::path m_File = m_Folder.Path() / "t.db";
    std::unique_ptr<CDaemon> m_pDaemon;
    CCaller m_Caller{m_Bus.Address()};
};

#endif  // TALLYRA_TESTS_SERVICE_DAEMONFIXTURE_H
