// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYBusNames.h"
#include "TYLog.h"
#include "TYServiceBus.h"
#include "TYServiceHandler.h"
#include "TYStorePath.h"
#include "TYWallClock.h"

#include <systemd/sd-daemon.h>
#include <CLI/CLI.hpp>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <system_error>

#define TY_LOG_TAG "TALLYRA_SERVICE"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kHousekeepingPeriod{60};

struct Settings {
    std::string db = DefaultStorePath();
    std::string address;
    int maxAgeDays = 30;
    int maxSizeMb = 512;
    double rate = 5000;
    bool discard = false;

    TYStoreLimits Limits() const {
        return {std::chrono::hours(24 * maxAgeDays), std::int64_t{maxSizeMb} << 20};
    }
};

int Parse(int argc, char** argv, Settings& settings) {
    CLI::App app("Collects what media players report over the system bus, and keeps it.",
                 "tallyra-service");
    app.set_version_flag("--version", TALLYRA_VERSION);
    app.add_option("--db", settings.db, "Database file, or :memory:")->capture_default_str();
    app.add_option("--address", settings.address, "Bus to serve instead of the system bus");
    app.add_option("--max-age", settings.maxAgeDays, "Days that records are kept")
        ->check(CLI::Range(1, 3650))
        ->capture_default_str();
    app.add_option("--max-size", settings.maxSizeMb, "MiB that records may take")
        ->check(CLI::Range(1, 1 << 20))
        ->capture_default_str();
    app.add_option("--rate", settings.rate, "Records a second of one player; 0: any number")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_flag("--discard", settings.discard,
                 "Accepts records without keeping them, to measure everything else");
    CLI11_PARSE(app, argc, argv);
    return -1;
}

/// Signals as readable events, so that none of them interrupts a batch.
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
    /// @return the next signal that came; 0 for none
    int Take() const {
        signalfd_siginfo info{};
        return read(m_nFd, &info, sizeof(info)) == sizeof(info) ? static_cast<int>(info.ssi_signo)
                                                                : 0;
    }

  private:
    int m_nFd = -1;
};

class CService {
  public:
    explicit CService(const Settings& settings)
        : m_Bus(settings.address),
          m_Store(settings.db, settings.Limits()),
          m_Peers([this](const std::string& name) { return m_Bus.Identify(name); }, settings.rate),
          m_Handler(m_Store, m_Peers, settings.discard) {
        m_Bus.OwnName();
        // Without its store the service still answers, and refuses until there is one.
        m_Store.Open();
    }

    /// @return whether it ended because it was told to
    bool Run() {
        const CTYServiceBus::Handler handler = [this](DBusMessage* pMessage) {
            return m_Handler.Handle(pMessage);
        };
        TY_LOG_INFO("serving %s", TYBusNames::kService);
        sd_notify(0, "READY=1");
        while (!HasEnded()) {
            if (!m_Bus.Serve(handler)) {
                TY_LOG_ERROR("the bus has gone");
                return false;
            }
            Wait();
        }
        sd_notify(0, "STOPPING=1");
        m_Bus.ReleaseName();
        m_Bus.Serve(handler);
        m_Bus.Flush();
        TY_LOG_INFO("ended");
        return true;
    }

  private:
    // Waits for messages, signals or the next housekeeping.
    void Wait() {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(m_NextHousekeeping - Clock::now());
        const short events = m_Bus.HasOutput() ? POLLIN | POLLOUT : POLLIN;
        pollfd waited[] = {{m_Bus.Fd(), events, 0}, {m_Signals.Fd(), POLLIN, 0}};
        poll(waited, 2, left.count() > 0 ? static_cast<int>(left.count()) : 0);
        if (Clock::now() >= m_NextHousekeeping || m_Store.HasGrown()) {
            // What is more to do is done between the next calls.
            m_NextHousekeeping =
                Clock::now() +
                (m_Store.Prune(WallClockNow()) ? Clock::duration::zero() : kHousekeepingPeriod);
        }
    }

    bool HasEnded() {
        while (const int signal = m_Signals.Take()) {
            if (signal != SIGHUP) {
                return true;
            }
            TY_LOG_INFO("opening the database again");
            m_Store.Reopen();
        }
        return false;
    }

    CSignals m_Signals;
    CTYServiceBus m_Bus;
    CTYStoreKeeper m_Store;
    CTYPeers m_Peers;
    CTYServiceHandler m_Handler;
    Clock::time_point m_NextHousekeeping = Clock::now();
};

void MakeFolder(const std::string& db) {
    const std::filesystem::path folder = std::filesystem::path(db).parent_path();
    std::error_code ignored;
    // Whether it worked is seen when the file is opened.
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
    // Records tell what people watch: they are nothing for everybody on the machine.
    umask(umask(0) | (S_IWGRP | S_IRWXO));
    MakeFolder(settings.db);
    return CService(settings).Run() ? 0 : 1;
} catch (const std::exception& error) {
    std::fprintf(stderr, "tallyra-service: %s\n", error.what());
    return 1;
}
