// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "FleetOptions.h"
#include "TYBackoff.h"
#include "TYForwarder.h"
#include "TYLog.h"
#include "TYMetered.h"
#include "TYSchema.h"
#include "TYStorePath.h"
#include "TYSubjects.h"

#include <CLI/CLI.hpp>

#include <sysexits.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>

#define TY_LOG_TAG "TALLYRA_FLEET"

namespace {

using std::chrono::milliseconds;

constexpr std::chrono::seconds kShortestPause{1};
constexpr std::chrono::minutes kLongestPause{5};
// How often it asks whether a metered network or the policy still forbids to send.
constexpr std::chrono::seconds kPermissionPeriod{30};

struct Settings {
    std::string db = ChooseStore(StorePathsToRead());
    TYNatsOptions nats;
    TYForwarderOptions forwarder;
    bool once = false;
    bool metered = false;
    double everyMinutes = 15;
};

void AddOptions(CLI::App& app, Settings& settings) {
    app.add_option("--db", settings.db, "Send the records of this store")
        ->envname("TALLYRA_DB")
        ->capture_default_str();
    AddNatsOptions(app, settings.nats);
    app.add_option("--device", settings.forwarder.device,
                   "Send as this device; default: the name in the credentials")
        ->envname("TALLYRA_DEVICE");
    auto& once = *app.add_flag("--once", settings.once, "Send what there is, then exit")
                      ->disable_flag_override();
    auto& follow = *app.add_flag("--follow", settings.forwarder.follow,
                                 "Stay connected, and send records as they are stored")
                        ->disable_flag_override();
    app.add_option("--every", settings.everyMinutes, "Connect every this many minutes")
        ->check(CLI::Range(0.1, 1440.0))
        ->capture_default_str()
        ->excludes(&once)
        ->excludes(&follow);
    follow.excludes(&once);
    app.add_option("--bytes-per-day", settings.forwarder.bytesPerDay,
                   "Send at most this many bytes a day (UTC); 0 for no limit")
        ->check(From(0))
        ->capture_default_str();
    app.add_flag("--keep-queries", settings.forwarder.keepQueries,
                 "Send URLs with user information, query and fragment, as far as stored")
        ->disable_flag_override();
    app.add_flag("--metered", settings.metered, "Send on metered networks, too")
        ->disable_flag_override();
}

std::optional<int> Parse(int argc, char** argv, Settings& settings) {
    CLI::App app("Sends the records of a device's store to the servers of a fleet.",
                 "tallyra-forward");
    app.set_version_flag("--version", TALLYRA_VERSION);
    AddOptions(app, settings);
    return ParseArguments(app, argc, argv);
}

void Complete(Settings& settings) {
    std::string& device = settings.forwarder.device;
    if (device.empty()) {
        if (settings.nats.credentials.empty()) {
            throw std::invalid_argument("name the device with --device, or give --credentials");
        }
        device = NameInCredentials(settings.nats.credentials);
    }
    if (!TYSubjects::IsDeviceName(device)) {
        throw std::invalid_argument(
            "a device's name has 1 to 64 letters, digits, '_' and '-', not: " + device);
    }
    settings.nats.name = device;
    settings.nats.inbox = TYSubjects::Inbox(device);
}

/// Connects again and again, and pauses in between.
///
/// Threads: the main thread.
class CForwardLoop {
  public:
    explicit CForwardLoop(const Settings& settings) : m_Settings(settings) {}

    /// @return the exit status of the program
    int Run() {
        // After a power cut, all devices of a town start at the same moment.
        if (!m_Settings.once && !m_Settings.forwarder.follow) {
            Pause(m_Backoff.Random({}, Interval()));
        }
        while (!IsStopRequested()) {
            const TYForwardEnd end = MayConnect() ? Attempt() : TYForwardEnd::WITHHELD;
            if (m_Settings.once) {
                return end == TYForwardEnd::DRAINED ? EX_OK : EX_TEMPFAIL;
            }
            Pause(PauseAfter(end));
        }
        return EX_OK;
    }

  private:
    /// Says once why the network may not be used.
    bool MayConnect() {
        if (m_Settings.metered || !IsNetworkMetered()) {
            return true;
        }
        m_Log.Log("waiting: the network is metered");
        return false;
    }

    // Also while connected: a phone may have taken over from a cable.
    bool MustLeave() {
        const auto now = std::chrono::steady_clock::now();
        if (now < m_NextLook) {
            return IsStopRequested();
        }
        m_NextLook = now + kPermissionPeriod;
        return IsStopRequested() || !MayConnect();
    }

    TYForwardEnd Attempt() {
        try {
            return Forward();
        } catch (const std::exception& error) {
            m_Log.Log(error.what());
            return TYForwardEnd::FAILED;
        }
    }

    TYForwardEnd Forward() {
        // Never creates a store: the service could not write to a file that another user owns.
        if (access(m_Settings.db.c_str(), R_OK | W_OK) != 0) {
            throw std::runtime_error("no store that this user can write to at " + m_Settings.db);
        }
        CTYDatabase database(m_Settings.db, CTYDatabase::Mode::READ_WRITE);
        CheckStore(database);
        // Bounds that were sent must survive a power failure.
        database.Execute("PRAGMA synchronous = FULL");
        if (CTYPolicies(database).Of("*").value == 0) {
            Report(TYForwardEnd::WITHHELD);
            return TYForwardEnd::WITHHELD;
        }
        CTYNatsLink link(m_Settings.nats);
        CTYForwarder forwarder(database, m_Settings.forwarder, link,
                               [this] { return MustLeave(); });
        try {
            const TYForwardEnd end = forwarder.Run();
            Report(end);
            NoteProgress(forwarder);
            return end;
        } catch (...) {
            NoteProgress(forwarder);
            throw;
        }
    }

    void NoteProgress(const CTYForwarder& forwarder) {
        if (forwarder.HasProgressed()) {
            m_Backoff.Reset();
        }
    }

    void CheckStore(CTYDatabase& database) const {
        try {
            CheckSchema(database);
            database.HasMoved();
        } catch (const CTYDatabaseError& error) {
            throw std::runtime_error(m_Settings.db + ": " + error.what());
        }
    }

    void Report(TYForwardEnd end) {
        switch (end) {
            case TYForwardEnd::DRAINED:
            case TYForwardEnd::STOPPED:
            case TYForwardEnd::MOVED:
                m_Log.Reset();
                break;
            case TYForwardEnd::LIMITED:
                m_Log.Log("waiting: the limit of bytes for this day is reached");
                break;
            case TYForwardEnd::WITHHELD:
                m_Log.Log("waiting: the policy of all applications is 0");
                break;
            case TYForwardEnd::FAILED:
                m_Log.Log("the servers took nothing for a minute");
                break;
            case TYForwardEnd::REPLACED:
                m_Log.Log("an older copy of the store is at " + m_Settings.db +
                          ": its ids were given before, so that new records count as stored; "
                          "remove it, and the service makes a new one");
                break;
        }
    }

    milliseconds PauseAfter(TYForwardEnd end) {
        switch (end) {
            case TYForwardEnd::DRAINED:
            case TYForwardEnd::LIMITED:
            case TYForwardEnd::REPLACED:
                m_Backoff.Reset();
                return NextInterval();
            case TYForwardEnd::WITHHELD:
            case TYForwardEnd::STOPPED:
                return kPermissionPeriod;
            case TYForwardEnd::MOVED:
                return kShortestPause;
            case TYForwardEnd::FAILED:
                return m_Backoff.Next();
        }
        return kLongestPause;
    }

    // Between 15/16 and 17/16 of the interval, so that devices that started together do not stay
    // so.
    milliseconds NextInterval() {
        return m_Backoff.Random(Interval() * 15 / 16, Interval() * 17 / 16);
    }

    milliseconds Interval() const {
        return std::chrono::duration_cast<milliseconds>(
            std::chrono::duration<double, std::ratio<60>>(m_Settings.everyMinutes));
    }

    const Settings& m_Settings;
    CTYBackoff m_Backoff{kShortestPause, kLongestPause};
    CTYLogOnce m_Log;
    std::chrono::steady_clock::time_point m_NextLook;
};

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    if (const std::optional<int> status = Parse(argc, argv, settings)) {
        return *status;
    }
    Complete(settings);
    CatchStopSignals();
    const CTYNatsLibrary library;
    return CForwardLoop(settings).Run();
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-forward: %s\n", error.what());
    return EX_USAGE;
}
