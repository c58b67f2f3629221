// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "QuietPlatform.h"

#include "appcat.h"
#include "connection.h"
#include "logsvc.h"
#include "regdb.h"
#include "wifi_manager.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

namespace {

using Callback = void (*)(struct _keynode_t*, void*);

std::atomic<bool> g_bDecided{false};
std::atomic<int> g_nKey{1};
std::atomic<Callback> g_pCallback{nullptr};
std::atomic<void*> g_pCallbackData{nullptr};
int g_nHandle = 0;

// The last line of each way that the connection check may go, or of one that never comes to an end.
bool DecidesTheConnection(const char* text) {
    constexpr std::array decisions = {"Sender thread start done", "drop collected data",
                                      "Connection is not ready", "No more free store space"};
    return std::any_of(decisions.begin(), decisions.end(), [text](const char* decision) {
        return std::strstr(text, decision) != nullptr;
    });
}

template <class Handle>
int Give(Handle* pHandle) {
    *pHandle = reinterpret_cast<Handle>(&g_nHandle);
    return 0;
}

int GiveText(char** ppText) {
    static char text[] = "1.2.3";
    *ppText = text;
    return 0;
}

}  // namespace

void CQuietPlatform::AwaitDecision() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!g_bDecided && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void CQuietPlatform::Forget() {
    g_bDecided = false;
}

void CQuietPlatform::ChangeKey(int value) noexcept {
    g_nKey = value;
    if (const Callback callback = g_pCallback; callback != nullptr) {
        callback(nullptr, g_pCallbackData);
    }
}

extern "C" {

int logsvc_print(int /*buffer*/, int priority, const char* tag, const char* format, ...) {
    char line[1024];
    int length = std::snprintf(line, sizeof(line), "%d %s ", priority, tag);
    va_list arguments;
    va_start(arguments, format);
    length += std::vsnprintf(line + length, sizeof(line) - 1 - static_cast<std::size_t>(length),
                             format, arguments);
    va_end(arguments);
    length = std::min<int>(length, sizeof(line) - 2);
    line[length] = '\n';
    const ssize_t written = write(STDERR_FILENO, line, static_cast<std::size_t>(length) + 1);
    line[length] = '\0';
    if (DecidesTheConnection(line)) {
        g_bDecided = true;
    }
    return written < 0 ? -1 : 0;
}

int regdb_get_bool(const char* /*key*/, int* value) {
    *value = g_nKey;
    return 0;
}

int regdb_notify_key_changed(const char* /*key*/, Callback callback, void* user_data) {
    g_pCallbackData = user_data;
    g_pCallback = callback;
    return 0;
}

int regdb_ignore_key_changed(const char* /*key*/, Callback /*callback*/) {
    g_pCallback = nullptr;
    return 0;
}

int appcat_appinfo_get_usr_appinfo(const char* /*app_id*/, uid_t /*uid*/,
                                   appcat_appinfo_h* appinfo) {
    return Give(appinfo);
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h /*appinfo*/, char** pkgid) {
    return GiveText(pkgid);
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h /*appinfo*/) {
    return 0;
}

int appcat_pkginfo_get_pkginfo(const char* /*pkgid*/, appcat_pkginfo_h* pkginfo) {
    return Give(pkginfo);
}

int appcat_pkginfo_get_version(appcat_pkginfo_h /*pkginfo*/, char** version) {
    return GiveText(version);
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h /*pkginfo*/) {
    return 0;
}

int connection_create(connection_h* connection) {
    return Give(connection);
}

int connection_destroy(connection_h /*connection*/) {
    return 0;
}

int connection_set_network_monitor_cb(connection_h /*connection*/,
                                      void (* /*callback*/)(connection_error_e, char*, void*),
                                      void* /*user_data*/) {
    return 0;
}

int connection_unset_network_monitor_cb(connection_h /*connection*/) {
    return 0;
}

int connection_get_type(connection_h /*connection*/, int* type) {
    *type = CONNECTION_TYPE_WIFI;
    return 0;
}

int connection_profile_check_default_gateway(bool* connected) {
    *connected = true;
    return 0;
}

int wifi_manager_initialize(wifi_manager_h* wifi) {
    return Give(wifi);
}

int wifi_manager_deinitialize(wifi_manager_h /*wifi*/) {
    return 0;
}

int wifi_manager_get_connected_ap(wifi_manager_h /*wifi*/, wifi_manager_ap_h* ap) {
    return Give(ap);
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h /*ap*/, int* rssi) {
    *rssi = -60;
    return 0;
}

int wifi_manager_ap_destroy(wifi_manager_ap_h /*ap*/) {
    return 0;
}

}  // extern "C"
