// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ChildCheck.h"
#include "EndSignals.h"
#include "Trial.h"

#include <CLI/CLI.hpp>

#include <cstdlib>
#include <exception>
#include <iomanip>
#include <iostream>
#include <map>
#include <stdexcept>

// The program "tallyra-check-platform": drives a platform's libraries as libtallyra does, and says
// which promises of the platform headers they keep.

namespace {

constexpr int kBroken = 1;
constexpr int kUsage = 2;
constexpr int kSignal = 128;
constexpr double kLongestPatience = 600;

const char* NameOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::HOLDS:
            return "holds";
        case Verdict::NOT_TRIED:
            return "not tried";
        case Verdict::BROKEN:
        case Verdict::NOT_ENDED:
            break;
    }
    return "broken";
}

// What the libraries print may contain anything. ASCII is enough here, and other characters could
// reorder the line; this program is also built without GLib, which tells them apart.
std::string Printable(std::string text) {
    for (char& character : text) {
        if (character < ' ' || character > '~') {
            character = '?';
        }
    }
    return text;
}

#define TALLYRA_MISSING(name)                                          \
    if (!trial.Functions().name.IsThere()) {                           \
        missing += (missing.empty() ? "" : ", ") + std::string(#name); \
    }
#define TALLYRA_TRY_SYMBOLS(functions)                                                   \
    [](CTrial& trial) {                                                                  \
        std::string missing;                                                             \
        functions(TALLYRA_MISSING) trial.Expect(missing.empty(), "missing: " + missing); \
    }

std::vector<Check> SymbolChecks() {
    constexpr const char* kPromise = "every function can be found";
    return {{"logsvc.h", kPromise, TALLYRA_TRY_SYMBOLS(TALLYRA_LOGSVC_FUNCTIONS)},
            {"regdb.h", kPromise, TALLYRA_TRY_SYMBOLS(TALLYRA_REGDB_FUNCTIONS)},
            {"appcat.h", kPromise, TALLYRA_TRY_SYMBOLS(TALLYRA_APPCAT_FUNCTIONS)},
            {"connection.h", kPromise, TALLYRA_TRY_SYMBOLS(TALLYRA_CONNECTION_FUNCTIONS)},
            {"wifi_manager.h", kPromise, TALLYRA_TRY_SYMBOLS(TALLYRA_WIFI_FUNCTIONS)}};
}

/// Runs checks and prints a line for each.
class CReport {
  public:
    explicit CReport(const Settings& settings) : m_Settings(settings) {}

    /// @return whether the promise is not broken
    bool Add(const Check& check) {
        const Outcome outcome = RunInChild(
            [&](CProgress& progress) {
                CTrial trial(m_Settings, progress);
                trial.Load();
                check.pTry(trial);
            },
            m_Settings.patience, AtSignal::END);
        std::cout << std::left << std::setw(11) << NameOf(outcome.verdict) << check.pHeader << ": "
                  << check.pPromise;
        if (!outcome.text.empty()) {
            std::cout << ": " << Printable(outcome.text);
        }
        std::cout << std::endl;
        if (!std::cout.good()) {
            throw std::runtime_error("writing the output failed");
        }
        ++m_Counts[outcome.verdict];
        return outcome.verdict != Verdict::BROKEN;
    }

    int End() {
        std::cout << m_Counts[Verdict::HOLDS] << " hold, " << m_Counts[Verdict::BROKEN]
                  << " broken, " << m_Counts[Verdict::NOT_TRIED] << " not tried\n";
        return m_Counts[Verdict::BROKEN] == 0 ? EXIT_SUCCESS : kBroken;
    }

  private:
    const Settings& m_Settings;
    std::map<Verdict, int> m_Counts;
};

int CheckAll(const Settings& settings) try {
    CReport report(settings);
    if (!report.Add({"libraries", "they can be loaded", [](CTrial&) {}})) {
        return report.End();
    }
    for (const auto& checks : {SymbolChecks(), LogChecks(), RegdbChecks(), AppcatChecks(),
                               ConnectionChecks(), WifiChecks()}) {
        for (const Check& check : checks) {
            report.Add(check);
        }
    }
    return report.End();
} catch (const Interruption& interruption) {
    return kSignal + interruption.signal;
} catch (const std::exception& error) {
    std::cerr << "tallyra-check-platform: " << error.what() << "\n";
    return kBroken;
}

// A check may end in the middle, so the device's own state is put back here. A signal waits:
// without a network, nobody might reach the device again.
void Restore(const Settings& settings) {
    const auto run = [&settings](auto change) {
        const Outcome outcome = RunInChild(
            [&](CProgress& progress) {
                CTrial trial(settings, progress);
                change(trial);
            },
            settings.patience, AtSignal::GO_ON);
        if (outcome.verdict != Verdict::HOLDS) {
            std::cerr << "tallyra-check-platform: at the end " << outcome.text << "\n";
        }
    };
    if (!settings.changeKey.empty()) {
        run([](CTrial& trial) { trial.SetKey(1); });
    }
    if (!settings.changeNetwork.empty()) {
        run([](CTrial& trial) { trial.SetNetwork(true); });
    }
}

void AddOptions(CLI::App& app, Settings& settings, double& timeout) {
    app.add_option("LIBRARY", settings.libraries, "Libraries of the platform, loaded in this order")
        ->required();
    app.add_option("--change-key", settings.changeKey,
                   "Command that sets the key; gets the value 0 or 1 as last argument");
    app.add_option("--key", settings.key, "The key to watch")->capture_default_str();
    app.add_option("--change-network", settings.changeNetwork,
                   "Command that takes the network up or down; gets that word as last argument");
    app.add_option("--app", settings.application, "Identifier of an installed application");
    app.add_option("--read-log", settings.readLog,
                   "Command that prints the log; without it, standard error is read");
    app.add_option("--timeout", timeout, "Seconds that a call or a callback may take")
        ->check(CLI::Range(0.1, kLongestPatience))
        ->capture_default_str();
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    double timeout = static_cast<double>(settings.patience.count()) / 1000;
    CLI::App app(
        "Drives the libraries of a platform as libtallyra does, and says which promises of "
        "the platform headers hold.",
        "tallyra-check-platform");
    app.set_version_flag("--version", TALLYRA_VERSION);
    AddOptions(app, settings, timeout);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? EXIT_SUCCESS : kUsage;
    }
    settings.patience = std::chrono::milliseconds(static_cast<int>(timeout * 1000));
    HoldEndSignals();
    const int status = CheckAll(settings);
    Restore(settings);
    std::cout.flush();
    const int signal = AwaitEndSignal(std::chrono::milliseconds(0));
    if (status <= kSignal && signal != 0) {
        return kSignal + signal;
    }
    return std::cout.good() ? status : kBroken;
} catch (const std::exception& error) {
    std::cerr << "tallyra-check-platform: " << error.what() << "\n";
    return kBroken;
}
