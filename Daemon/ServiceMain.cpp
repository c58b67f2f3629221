// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusNames.h"
#include "TYLog.h"
#include "TYServiceBus.h"
#include "TYServiceHandler.h"
#include "TYServiceStatus.h"
#include "TYStorePath.h"
#include "TYWakeup.h"

#include <systemd/sd-daemon.h>
#include <CLI/CLI.hpp>

#include <malloc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <stop_token>
#include <system_error>
#include <thread>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kHousekeepingPeriod{60};
// How long the numbers of lost records wait to be written.
constexpr std::chrono::seconds kLossPeriod{1};

/// No store can be at the path until an operator changes something.
struct UnusableStore : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// How long one thread reads before it tells the other one, and how long that one waits for it to
// catch up.
constexpr std::chrono::milliseconds kReadingTime{5};
// How long it waits for the bus to release its name when it stops.
constexpr std::chrono::seconds kReleaseTime{5};
// Larger blocks of memory return to the system when they are freed. So does what is free at the end
// of a heap, beyond kKeptMemory: without it, each batch would take new pages from the kernel.
constexpr int kLargestKeptBlock = 1 << 20;
constexpr int kKeptMemory = 4 << 20;

struct Settings {
    std::string db = DefaultStorePath();
    std::string address;
    int maxAgeDays = 30;
    int maxSizeMb = 512;
    double rate = 5000;
    bool discard = false;
    bool keepQueries = false;

    TYStoreLimits Limits() const {
        return {std::chrono::hours(24 * maxAgeDays), std::int64_t{maxSizeMb} << 20};
    }
    TYHandlerOptions HandlerOptions() const {
        return {.discard = discard, .keepQueries = keepQueries};
    }
};

// Parsers take "nan" and "inf" for numbers, and "" for 0.
std::string CheckRate(const std::string& text) {
    const double rate = std::strtod(text.c_str(), nullptr);
    return !text.empty() && std::isfinite(rate) && rate >= 0
               ? ""
               : "the rate must be a number, 0 or more";
}

std::string CheckPath(const std::string& text) {
    return text.empty() ? "the name of the file is empty" : "";
}

int Parse(int argc, char** argv, Settings& settings) {
    CLI::App app("Receives playback records from media players over D-Bus and stores them.",
                 "tallyra-service");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.add_option("--db", settings.db,
                   "Store records in this file; :memory: keeps them only until exit")
        ->check(CheckPath)
        ->capture_default_str();
    app.add_option("--address", settings.address,
                   "Serve the bus at this D-Bus address instead of the system bus");
    app.add_option("--max-age", settings.maxAgeDays, "Drop records older than this many days")
        ->check(CLI::Range(1, 3650))
        ->capture_default_str();
    app.add_option("--max-size", settings.maxSizeMb,
                   "Drop old records when the database and its log exceed this many MiB")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--rate", settings.rate,
                   "Accept at most this many records per second from each user; 0 for no limit")
        ->check(CheckRate)
        ->capture_default_str();
    app.add_flag("--discard", settings.discard,
                 "Accept records but do not store them, for benchmarks")
        ->disable_flag_override();
    app.add_flag("--keep-queries", settings.keepQueries,
                 "Store URLs as sent, with user information and values of query parameters")
        ->disable_flag_override();
    CLI11_PARSE(app, argc, argv);
    return -1;
}

/// Delivers signals through a descriptor, so that none interrupts a batch.
class CSignals {
  public:
    CSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
            sigaddset(&signals, signal);
        }
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        m_nFd = signalfd(-1, &signals, SFD_NONBLOCK | SFD_CLOEXEC);
        if (m_nFd < 0) {
            throw std::system_error(errno, std::generic_category(), "signalfd");
        }
    }
    ~CSignals() { close(m_nFd); }
    CSignals(const CSignals&) = delete;
    CSignals& operator=(const CSignals&) = delete;

    int Fd() const { return m_nFd; }
    /// @return the next pending signal; 0 if there is none
    int Take() const {
        signalfd_siginfo info{};
        if (read(m_nFd, &info, sizeof(info)) != sizeof(info)) {
            return 0;
        }
        return static_cast<int>(info.ssi_signo);
    }

  private:
    int m_nFd = -1;
};

// Zero if the service manager does not watch the service.
std::chrono::microseconds WatchdogTime() {
    std::uint64_t time = 0;
    return std::chrono::microseconds(sd_watchdog_enabled(0, &time) > 0 ? time : 0);
}

/// The service. The main thread serves calls, keeps the store, and handles signals and
/// housekeeping. A second thread reads the bus, see TYServiceBus.cpp.
class CService {
  public:
    explicit CService(const Settings& settings)
        : m_Bus(settings.address, CTYServiceHandler::kMaxMessage),
          m_Store(settings.db, settings.Limits()),
          m_Peers([this](const std::string& name) { return m_Bus.Identify(name); }, settings.rate),
          m_Handler(
              m_Store, m_Peers, [this](const TYMessagePtr& reply) { m_Bus.Send(reply); },
              settings.HandlerOptions()) {
        m_Bus.OwnName(m_Receiver);
        // If this fails, the service still answers calls. It refuses batches until the store can be
        // opened. If only an operator can change that, starting again would not help.
        m_Store.Open();
        if (m_Store.Unusable()) {
            throw UnusableStore(*m_Store.Unusable());
        }
    }

    /// Serves until a signal or the loss of the bus.
    /// @return whether a signal ended it
    bool Run() {
        TY_LOG_INFO("serving %s", TYBusNames::kService);
        sd_notify(0, "READY=1");
        const std::jthread reader([this](const std::stop_token& stop) { ReadBus(stop); });
        while (!IsStopRequested()) {
            if (m_bLostBus) {
                TY_LOG_ERROR("lost the connection to the bus");
                ServeAll();
                return false;
            }
            if (!ServeNext()) {
                Wait(UntilHousekeeping());
            }
            KeepHouse();
        }
        Finish();
        TY_LOG_INFO("stopped");
        return true;
    }

  private:
    // The reading thread.
    void ReadBus(const std::stop_token& stop) {
        const std::stop_callback wake(stop, [this] { m_Output.Set(); });
        while (!stop.stop_requested()) {
            if (!m_Bus.Read(kReadingTime, m_Receiver)) {
                m_bLostBus = true;
                m_Work.Set();
                return;
            }
            if (m_Handler.HasWork()) {
                m_Bus.Probe();
                m_Work.Set();
            }
            if (m_Bus.IsReleased()) {
                m_Work.Set();
            }
            const auto [calls, inquiries] = m_Bus.Polled();
            pollfd waited[] = {calls, inquiries, {m_Output.Fd(), POLLIN, 0}};
            poll(waited, std::size(waited), -1);
            m_Output.Clear();
        }
    }

    // Reading goes first, but not for ever: calls must be served at some rate.
    void WaitForReader() {
        const auto end = Clock::now() + kReadingTime;
        while (m_Bus.IsBehind() && Clock::now() < end) {
            m_Work.Clear();
            Wait(end - Clock::now());
        }
    }

    /// @return whether more calls wait
    bool ServeNext() {
        WaitForReader();
        m_Work.Clear();
        const bool isMore = m_Handler.Serve();
        if (!m_Bus.Write()) {
            m_Output.Set();
        }
        return isMore;
    }

    void ServeAll() {
        while (ServeNext()) {
        }
    }

    // Serves all calls that were sent while the service had its name.
    void Finish() {
        sd_notify(0, "STOPPING=1");
        m_Bus.BeginRelease();
        const auto end = Clock::now() + kReleaseTime;
        while (!m_Bus.IsReleased() && !m_bLostBus && Clock::now() < end) {
            if (!ServeNext()) {
                Wait(end - Clock::now());
            }
        }
        ServeAll();
        m_Bus.Flush();
    }

    // Waits for work or signals.
    void Wait(Clock::duration atMost) const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(atMost);
        pollfd waited[] = {{m_Work.Fd(), POLLIN, 0}, {m_Signals.Fd(), POLLIN, 0}};
        poll(waited, std::size(waited), left.count() > 0 ? static_cast<int>(left.count()) : 0);
    }

    Clock::duration UntilHousekeeping() const {
        const Clock::duration left = std::min(m_NextHousekeeping, m_Status.Next()) - Clock::now();
        return m_Store.HasLosses() ? std::min<Clock::duration>(left, kLossPeriod) : left;
    }

    void KeepHouse() {
        if (Clock::now() >= m_NextHousekeeping || m_Store.HasGrown()) {
            // Prune works in bounded steps. If there is more to drop, the next step follows after
            // the next calls.
            m_NextHousekeeping =
                Clock::now() + (m_Store.Prune() ? Clock::duration::zero() : kHousekeepingPeriod);
        }
        m_Status.Update(m_Store.State(), Clock::now());
    }

    // Handles pending signals.
    bool IsStopRequested() {
        while (const int signal = m_Signals.Take()) {
            if (signal != SIGHUP) {
                return true;
            }
            TY_LOG_INFO("reopening the database");
            m_Store.Reopen();
        }
        return false;
    }

    CSignals m_Signals;
    CTYServiceBus m_Bus;
    CTYStoreKeeper m_Store;
    CTYPeers m_Peers;
    CTYServiceHandler m_Handler;
    CTYServiceStatus m_Status{[](const std::string& text) { sd_notify(0, text.c_str()); },
                              WatchdogTime()};
    const CTYServiceBus::Receiver m_Receiver = [this](const TYArrival& arrival) {
        m_Handler.Receive(arrival);
    };
    CTYWakeup m_Work;    ///< wakes the main thread
    CTYWakeup m_Output;  ///< wakes the reading thread
    std::atomic<bool> m_bLostBus = false;
    Clock::time_point m_NextHousekeeping = Clock::now();
};

void MakeFolder(const std::string& db) {
    const std::filesystem::path folder = std::filesystem::path(db).parent_path();
    std::error_code ignored;
    // A failure shows when the file is opened.
    if (!folder.empty() && db != ":memory:") {
        std::filesystem::create_directories(folder, ignored);
    }
}

}  // namespace

int main(int argc, char** argv) try {
    Settings settings;
    if (const int status = Parse(argc, argv, settings); status >= 0) {
        return status;
    }
    // Records show what people watch, so no other user gets access.
    umask(umask(0) | (S_IWGRP | S_IRWXO));
    mallopt(M_MMAP_THRESHOLD, kLargestKeptBlock);
    mallopt(M_TRIM_THRESHOLD, kKeptMemory);
    MakeFolder(settings.db);
    return CService(settings).Run() ? 0 : 1;
} catch (const UnusableStore& error) {
    std::fprintf(stderr, "tallyra-service: %s\n", error.what());
    return EX_CONFIG;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-service: %s\n", error.what());
    return 1;
}
