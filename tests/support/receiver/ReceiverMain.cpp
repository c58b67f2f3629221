// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-receiver": replies to the library as a collection service does and prints
// what it receives. It stores nothing.

#include "receiver/Receiver.h"
#include "receiver/Report.h"

#include <glib-unix.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <memory>

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr guint kLookPeriodMs = 200;

struct Options {
    std::unique_ptr<gchar, decltype(&g_free)> address{nullptr, &g_free};
    gint policy = 1;
    gint idleSeconds = 0;
};

/// What ends the program: a signal, or a time without calls.
struct Watch {
    GMainLoop* pLoop;
    gint idleSeconds;
    std::atomic<gint64> lastCall;
};

bool ParseOptions(int argc, char** argv, Options* pOptions) {
    gchar* pAddress = nullptr;
    const GOptionEntry entries[] = {
        {"address", 0, 0, G_OPTION_ARG_STRING, &pAddress,
         "Bus to serve on; the system bus by default", "ADDRESS"},
        {"policy", 0, 0, G_OPTION_ARG_INT, &pOptions->policy,
         "Policy that every application gets; 0 refuses", "N"},
        {"exit-after-idle", 0, 0, G_OPTION_ARG_INT, &pOptions->idleSeconds,
         "End when nothing came for so long", "SECONDS"},
        {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
    GOptionContext* pContext = g_option_context_new("- prints what the library sends");
    g_option_context_add_main_entries(pContext, entries, nullptr);
    GError* pError = nullptr;
    const bool parsed = g_option_context_parse(pContext, &argc, &argv, &pError) != FALSE;
    g_option_context_free(pContext);
    pOptions->address.reset(pAddress);
    if (!parsed || argc > 1) {
        std::fprintf(stderr, "tallyra-receiver: %s\n", parsed ? "too many words" : pError->message);
        g_clear_error(&pError);
        return false;
    }
    return true;
}

std::string BusAddress(const Options& options) {
    if (options.address != nullptr) {
        return options.address.get();
    }
    const std::unique_ptr<gchar, decltype(&g_free)> address(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr), &g_free);
    return address != nullptr ? address.get() : "";
}

gboolean Quit(gpointer pLoop) {
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_CONTINUE;
}

gboolean QuitWhenIdle(gpointer pData) {
    const auto* pWatch = static_cast<Watch*>(pData);
    const gint64 idle = g_get_monotonic_time() - pWatch->lastCall;
    if (pWatch->idleSeconds > 0 && idle > gint64{pWatch->idleSeconds} * G_USEC_PER_SEC) {
        g_main_loop_quit(pWatch->pLoop);
    }
    return G_SOURCE_CONTINUE;
}

void Serve(const Options& options) {
    receiver::CReport report(isatty(STDOUT_FILENO) != 0);
    const std::unique_ptr<GMainLoop, decltype(&g_main_loop_unref)> loop(
        g_main_loop_new(nullptr, FALSE), &g_main_loop_unref);
    Watch watch{loop.get(), options.idleSeconds, g_get_monotonic_time()};
    {
        receiver::CReceiver service(BusAddress(options),
                                    [&](const receiver::Call& call, const auto& records) {
                                        watch.lastCall = g_get_monotonic_time();
                                        std::fputs(report.Lines(call, records).c_str(), stdout);
                                        std::fflush(stdout);
                                    });
        service.SetPolicy(options.policy);
        service.OwnName();
        std::printf("ready on %s\n", receiver::kServiceName);
        std::fflush(stdout);
        g_unix_signal_add(SIGINT, &Quit, loop.get());
        g_unix_signal_add(SIGTERM, &Quit, loop.get());
        g_timeout_add(kLookPeriodMs, &QuitWhenIdle, &watch);
        g_main_loop_run(loop.get());
    }
    std::fputs(report.Summary().c_str(), stdout);
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        return kUsage;
    }
    try {
        Serve(options);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tallyra-receiver: %s\n", error.what());
        return kFailure;
    }
}
