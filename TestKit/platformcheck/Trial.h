// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_TRIAL_H
#define TALLYRA_TESTKIT_TRIAL_H

#include "PlatformFunctions.h"
#include "Progress.h"

#include <chrono>
#include <functional>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

/// What the command line says.
struct Settings {
    std::vector<std::string> libraries;
    std::string key = "db/tallyra/log_on";
    std::string application;
    std::string changeKey;
    std::string changeNetwork;
    std::string readLog;
    std::chrono::milliseconds patience{5000};
};

/// One check in its child process: the functions, and the ways to end it.
///
/// Threads: any.
class CTrial {
  public:
    CTrial(const Settings& settings, CProgress& progress)
        : m_Settings(settings), m_Progress(progress) {}
    CTrial(const CTrial&) = delete;
    CTrial& operator=(const CTrial&) = delete;

    const Settings& Wanted() const { return m_Settings; }
    PlatformFunctions& Functions() { return m_Functions; }
    void Load() { m_Functions.Load(m_Progress, m_Settings.libraries); }

    [[noreturn]] void Broken(const std::string& seen) { m_Progress.End(Verdict::BROKEN, seen); }
    [[noreturn]] void NotTried(const std::string& reason) {
        m_Progress.End(Verdict::NOT_TRIED, reason);
    }
    void Expect(bool holds, const std::string& otherwise) {
        if (!holds) {
            Broken(otherwise);
        }
    }

    /// Calls a function that must succeed.
    template <class Function, class... Arguments>
    void Succeed(const Function& function, Arguments... arguments) {
        const int result = function(arguments...);
        if (result != 0) {
            Broken(std::string(function.Name()) + " returned " + std::to_string(result));
        }
    }
    /// Calls a function that must fail.
    /// @param situation  for the complaint, as " for a NULL key"
    /// @param promised   the codes that the header promises there
    template <class Function, class... Arguments>
    void Fail(const std::string& situation, std::initializer_list<int> promised,
              const Function& function, Arguments... arguments) {
        ExpectError(function.Name(), function(arguments...), situation, promised);
    }
    /// Judges the result of a function that must fail.
    void ExpectError(const char* pFunction, int result, const std::string& situation,
                     std::initializer_list<int> promised);

    /// Changes the key, or the network, with the command of the option. Without one, the check ends
    /// as not tried.
    void SetKey(int value);
    void SetNetwork(bool up);

    /// From now on, calls may take that much longer, since the check itself holds them.
    void Allow(std::chrono::milliseconds time) { m_Progress.Allow(time); }

    /// Starts a thread. If the system has none, the check ends as not tried.
    std::thread Start(const std::function<void()>& work);

    /// Runs the work on several threads again and again for a short time.
    void AtOnce(const std::function<void()>& work);

    /// Runs a command of an option.
    /// @return its output
    std::string Run(const char* pOption, const std::string& command);

  private:
    const Settings& m_Settings;
    CProgress& m_Progress;
    PlatformFunctions m_Functions;
};

/// @return a value that a handle must keep when a call fails
template <class Handle>
Handle Untouched() {
    static char place;
    return reinterpret_cast<Handle>(&place);
}

/// A promise of the headers, and how to try it.
struct Check {
    const char* pHeader;
    const char* pPromise;
    void (*pTry)(CTrial& trial);
};

std::vector<Check> LogChecks();
std::vector<Check> RegdbChecks();
std::vector<Check> AppcatChecks();
std::vector<Check> ConnectionChecks();
std::vector<Check> WifiChecks();

#endif  // TALLYRA_TESTKIT_TRIAL_H
