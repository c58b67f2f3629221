// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "ServiceState.h"

#include "TYBusNames.h"
#include "TYStorePath.h"

#include <gio/gio.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <stop_token>
#include <string_view>
#include <thread>

namespace {

constexpr std::chrono::seconds kPatience{2};
constexpr std::int64_t kSecond = 1'000'000'000;
// Field 22 of /proc/PID/stat, counted from the field behind the name of the program.
constexpr int kStartField = 20;

struct Unref {
    void operator()(gpointer pObject) const { g_object_unref(pObject); }
};
struct UnrefVariant {
    void operator()(GVariant* pValue) const { g_variant_unref(pValue); }
};
struct FreeError {
    void operator()(GError* pError) const { g_error_free(pError); }
};
struct FreeText {
    void operator()(char* pText) const { g_free(pText); }
};
using Connection = std::unique_ptr<GDBusConnection, Unref>;
using Error = std::unique_ptr<GError, FreeError>;

/// Cancels what uses it once the patience is over: a bus that accepts a connection may stay silent.
class CPatience {
  public:
    CPatience() = default;
    GCancellable* Get() const { return m_pCancellable.get(); }

  private:
    void Watch(const std::stop_token& stop) {
        std::unique_lock lock(m_Mutex);
        m_Ended.wait_for(lock, stop, kPatience, [] { return false; });
        if (!stop.stop_requested()) {
            g_cancellable_cancel(m_pCancellable.get());
        }
    }

    std::unique_ptr<GCancellable, Unref> m_pCancellable{g_cancellable_new()};
    std::mutex m_Mutex;
    std::condition_variable_any m_Ended;
    std::jthread m_Watch{[this](const std::stop_token& stop) { Watch(stop); }};
};

std::string SystemBusAddress() {
    const std::unique_ptr<char, FreeText> pAddress(
        g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
    return pAddress != nullptr ? pAddress.get() : "";
}

Connection Connect(const std::string& address, const CPatience& patience, Error& failure) {
    GError* pError = nullptr;
    Connection pConnection(g_dbus_connection_new_for_address_sync(
        address.c_str(),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, patience.Get(), &pError));
    failure.reset(pError);
    return pConnection;
}

// Returns nothing, and no failure, if the name has no owner.
std::optional<pid_t> ProcessOfService(GDBusConnection* pBus, const CPatience& patience,
                                      Error& failure) {
    GError* pError = nullptr;
    const std::unique_ptr<GVariant, UnrefVariant> pReply(g_dbus_connection_call_sync(
        pBus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
        "GetConnectionUnixProcessID", g_variant_new("(s)", TYBusNames::kService),
        G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, -1, patience.Get(), &pError));
    if (pReply == nullptr) {
        failure.reset(pError);
        if (g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE) {
            failure.reset();
        }
        return std::nullopt;
    }
    guint32 pid = 0;
    g_variant_get(pReply.get(), "(u)", &pid);
    return static_cast<pid_t>(pid);
}

std::string ReadProc(pid_t pid, const char* pName) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + pName, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The kernel tells when the machine started in seconds. Reading the clocks instead would yield
// another time with each call.
std::optional<std::int64_t> StartOfMachine() {
    std::ifstream file("/proc/stat");
    for (std::string word; file >> word;) {
        std::int64_t seconds = 0;
        if (word == "btime" && file >> seconds) {
            return seconds * kSecond;
        }
    }
    return std::nullopt;
}

// The kernel counts from the start of the machine, in ticks.
std::optional<std::int64_t> StartOf(pid_t pid) {
    const auto machine = StartOfMachine();
    const std::string stat = ReadProc(pid, "stat");
    const auto name = stat.rfind(')');
    if (!machine || name == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(stat.substr(name + 1));
    std::string field;
    for (int i = 0; i < kStartField; ++i) {
        fields >> field;
    }
    const std::int64_t tick = kSecond / sysconf(_SC_CLK_TCK);
    return *machine + std::atoll(field.c_str()) * tick;
}

std::vector<std::string> ArgumentsOf(pid_t pid) {
    std::vector<std::string> arguments;
    std::istringstream words(ReadProc(pid, "cmdline"));
    for (std::string word; std::getline(words, word, '\0');) {
        arguments.push_back(word);
    }
    return arguments;
}

// Without --db, the service of this user uses the same default as this command. Of another user,
// only the option tells.
std::optional<std::string> StoreOf(const ServiceState& service) {
    namespace fs = std::filesystem;
    const std::string process = "/proc/" + std::to_string(*service.pid);
    const auto told = service.Argument("--db");
    std::error_code error;
    if (told) {
        const fs::path folder =
            fs::path(*told).is_absolute() ? fs::path() : fs::read_symlink(process + "/cwd", error);
        return error ? std::nullopt : std::optional((folder / *told).string());
    }
    struct stat info {};
    const bool isOwn = stat(process.c_str(), &info) == 0 && info.st_uid == geteuid();
    return isOwn && !service.arguments.empty() ? std::optional(DefaultStorePath()) : std::nullopt;
}

}  // namespace

std::optional<std::string> ServiceState::Argument(const std::string& option) const {
    std::optional<std::string> value;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == option && i + 1 < arguments.size()) {
            value = arguments[i + 1];
        } else if (arguments[i].starts_with(option + "=")) {
            value = arguments[i].substr(option.size() + 1);
        }
    }
    return value;
}

bool ServiceState::HasFlag(const std::string& option) const {
    return std::ranges::find(arguments, option) != arguments.end();
}

ServiceState FindService(const std::string& address) {
    ServiceState state{address.empty() ? SystemBusAddress() : address, ""};
    const CPatience patience;
    Error failure;
    if (const Connection pBus = Connect(state.bus, patience, failure)) {
        state.pid = ProcessOfService(pBus.get(), patience, failure);
    }
    if (failure != nullptr) {
        state.error = failure->message;
    }
    if (state.pid) {
        state.since = StartOf(*state.pid);
        state.arguments = ArgumentsOf(*state.pid);
        state.store = StoreOf(state);
    }
    return state;
}
