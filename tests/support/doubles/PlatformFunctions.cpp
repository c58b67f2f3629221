// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform's functions except the log's, answered by the platform double.

#include "doubles/PlatformDouble.h"

#include "appcat.h"
#include "wifi_manager.h"

#include <unistd.h>

#include <cstring>

namespace {

// The only key of this platform; any other is an error.
constexpr const char* kKey = "db/tallyra/log_on";
constexpr int kNoSuchKey = -2;

CPlatformDouble& Platform() {
    return CPlatformDouble::Instance();
}

// Every handle while the platform does not allocate.
char g_SharedHandle = 0;

/// Gives a new handle if the call succeeds. The leak checker finds those that are not freed.
template <class Handle>
int Give(int result, bool null, Handle* pHandle) {
    if (result == 0 && !null) {
        char* pMemory = Platform().Allocates() ? new char : &g_SharedHandle;
        *pHandle = reinterpret_cast<Handle>(pMemory);
    }
    return result;
}

/// Sets an output if the call succeeds.
template <class Value>
int Set(int result, const Value& value, Value* pOutput) {
    if (result == 0) {
        *pOutput = value;
    }
    return result;
}

template <class Handle>
void FreeHandle(Handle handle) {
    auto* pMemory = reinterpret_cast<char*>(handle);
    if (pMemory != &g_SharedHandle) {
        delete pMemory;
    }
}

template <class Handle>
int Free(const char* name, Handle handle) {
    FreeHandle(handle);
    return Platform().Begin(name);
}

bool IsKnown(const char* key) {
    return std::strcmp(key, kKey) == 0;
}

}  // namespace

extern "C" {

int regdb_get_bool(const char* key, int* value) {
    const int result = Platform().Begin(__func__, Platform().keyResult);
    return IsKnown(key) ? Set(result, Platform().keyValue.load(), value) : kNoSuchKey;
}

int regdb_notify_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*),
                             void* user_data) {
    const int result = Platform().Begin(__func__, Platform().notifyResult);
    if (result == 0 && IsKnown(key)) {
        Platform().AddWatcher({callback, user_data});
    }
    return IsKnown(key) ? result : kNoSuchKey;
}

int regdb_ignore_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*)) {
    const int result = Platform().Begin(__func__, Platform().ignoreResult);
    if (!IsKnown(key)) {
        return kNoSuchKey;
    }
    const int removed = Platform().RemoveWatcher({callback, nullptr});
    return result != 0 ? result : removed;
}

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo) {
    const int result = Platform().Begin(__func__, Platform().appInfoResult);
    if (Platform().Allocates()) {
        Platform().NoteApp(app_id);
    }
    return Give(uid == getuid() ? result : -1, Platform().appInfoNull, appinfo);
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h /*appinfo*/, char** pkgid) {
    static char id[] = "package";
    const int result = Platform().Begin(__func__, Platform().pkgIdResult);
    return Platform().pkgIdNull ? result : Set<char*>(result, id, pkgid);
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo) {
    return Free(__func__, appinfo);
}

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    const int result = Platform().Begin(__func__, Platform().pkgInfoResult);
    return Give(std::strcmp(pkgid, "package") == 0 ? result : -1, Platform().pkgInfoNull, pkginfo);
}

int appcat_pkginfo_get_version(appcat_pkginfo_h /*pkginfo*/, char** version) {
    const int result = Platform().Begin(__func__, Platform().versionResult);
    if (!Platform().versionNull) {
        *version = Platform().version.data();
    }
    return result;
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    return Free(__func__, pkginfo);
}

int connection_create(connection_h* connection) {
    return Give(Platform().Begin(__func__, Platform().connectionCreateResult), false, connection);
}

int connection_destroy(connection_h connection) {
    const int result = Platform().Begin(__func__, Platform().connectionDestroyResult);
    if (result == 0) {
        Platform().RemoveMonitor(connection);
        FreeHandle(connection);
    }
    return result;
}

int connection_set_network_monitor_cb(connection_h connection,
                                      void (*callback)(connection_error_e, char*, void*),
                                      void* user_data) {
    const int result = Platform().Begin(__func__, Platform().monitorResult);
    if (result == 0) {
        Platform().AddMonitor({connection, callback, user_data});
    }
    return result;
}

int connection_unset_network_monitor_cb(connection_h connection) {
    const int result = Platform().Begin(__func__);
    Platform().RemoveMonitor(connection);
    return result;
}

int connection_get_type(connection_h connection, int* type) {
    const int result = Platform().Begin(__func__, Platform().connectionTypeResult);
    return connection == nullptr ? -1 : Set(result, Platform().connectionType, type);
}

int connection_profile_check_default_gateway(bool* connected) {
    *connected = Platform().gatewayConnected;
    return Platform().Begin(__func__, Platform().gatewayResult);
}

int wifi_manager_initialize(wifi_manager_h* wifi) {
    return Give(Platform().Begin(__func__, Platform().wifiResult), Platform().wifiNull, wifi);
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    return Free(__func__, wifi);
}

int wifi_manager_get_connected_ap(wifi_manager_h /*wifi*/, wifi_manager_ap_h* ap) {
    return Give(Platform().Begin(__func__, Platform().apResult), Platform().apNull, ap);
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h /*ap*/, int* rssi) {
    return Set(Platform().Begin(__func__, Platform().rssiResult), Platform().rssi, rssi);
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    return Free(__func__, ap);
}

}  // extern "C"
