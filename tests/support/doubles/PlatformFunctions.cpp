// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform's functions except the log's, answered by the platform double.

#include "doubles/PlatformDouble.h"

#include "appcat.h"
#include "wifi_manager.h"

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

template <class Handle>
void FreeHandle(Handle handle) {
    auto* pMemory = reinterpret_cast<char*>(handle);
    if (pMemory != &g_SharedHandle) {
        delete pMemory;
    }
}

}  // namespace

extern "C" {

int regdb_get_bool(const char* key, int* value) {
    const int result = Platform().Begin(__func__, Platform().keyResult);
    if (std::strcmp(key, kKey) != 0) {
        return kNoSuchKey;
    }
    if (result == 0) {
        *value = Platform().keyValue;
    }
    return result;
}

int regdb_notify_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*),
                             void* user_data) {
    const int result = Platform().Begin(__func__, Platform().notifyResult);
    if (std::strcmp(key, kKey) != 0) {
        return kNoSuchKey;
    }
    if (result == 0) {
        Platform().AddWatcher({callback, user_data});
    }
    return result;
}

int regdb_ignore_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*)) {
    const int result = Platform().Begin(__func__, Platform().ignoreResult);
    if (std::strcmp(key, kKey) != 0) {
        return kNoSuchKey;
    }
    const int removed = Platform().RemoveWatcher({callback, nullptr});
    return result != 0 ? result : removed;
}

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo) {
    const int result = Platform().Begin(__func__, Platform().appInfoResult);
    Platform().NoteApp(app_id, uid);
    return Give(result, Platform().appInfoNull, appinfo);
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h /*appinfo*/, char** pkgid) {
    static char id[] = "org.example.package";
    const int result = Platform().Begin(__func__, Platform().pkgIdResult);
    if (result == 0 && !Platform().pkgIdNull) {
        *pkgid = id;
    }
    return result;
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo) {
    FreeHandle(appinfo);
    return Platform().Begin(__func__);
}

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    const int result = Platform().Begin(__func__, Platform().pkgInfoResult);
    Platform().NotePackage(pkgid);
    return Give(result, Platform().pkgInfoNull, pkginfo);
}

int appcat_pkginfo_get_version(appcat_pkginfo_h /*pkginfo*/, char** version) {
    const int result = Platform().Begin(__func__, Platform().versionResult);
    if (!Platform().versionNull) {
        *version = Platform().version.data();
    }
    return result;
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    FreeHandle(pkginfo);
    return Platform().Begin(__func__);
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
    if (connection == nullptr) {
        return -1;
    }
    if (result == 0) {
        *type = Platform().connectionType;
    }
    return result;
}

int connection_profile_check_default_gateway(bool* connected) {
    *connected = Platform().gatewayConnected;
    return Platform().Begin(__func__, Platform().gatewayResult);
}

int wifi_manager_initialize(wifi_manager_h* wifi) {
    return Give(Platform().Begin(__func__, Platform().wifiResult), Platform().wifiNull, wifi);
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    FreeHandle(wifi);
    return Platform().Begin(__func__);
}

int wifi_manager_get_connected_ap(wifi_manager_h /*wifi*/, wifi_manager_ap_h* ap) {
    return Give(Platform().Begin(__func__, Platform().apResult), Platform().apNull, ap);
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h /*ap*/, int* rssi) {
    const int result = Platform().Begin(__func__, Platform().rssiResult);
    if (result == 0) {
        *rssi = Platform().rssi;
    }
    return result;
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    FreeHandle(ap);
    return Platform().Begin(__func__);
}

}  // extern "C"
