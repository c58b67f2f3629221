// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The platform's functions, answered by the platform double.

#include "doubles/PlatformDouble.h"

#include "appcat.h"
#include "wifi_manager.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// There is one key on this platform, and asking for another is an error.
constexpr const char* kKey = "db/tallyra/log_on";
constexpr int kNoSuchKey = -2;

CPlatformDouble& Platform() {
    return CPlatformDouble::Instance();
}

/// A handle that no code but the double may look into.
template <class Handle>
Handle MakeHandle() {
    return reinterpret_cast<Handle>(new char);
}

template <class Handle>
void FreeHandle(Handle handle) {
    delete reinterpret_cast<char*>(handle);
}

/// Takes "file: function(line) > text" apart.
CPlatformDouble::LogLine Parse(int buffer, int priority, const char* tag,
                               const std::string& message) {
    const std::size_t fileEnd = message.find(": ");
    const std::size_t siteEnd = message.find(") > ");
    const std::size_t lineStart = message.rfind('(', siteEnd);
    if (siteEnd == std::string::npos || lineStart == std::string::npos) {
        return {priority, tag, "", "", 0, message, buffer};
    }
    return {priority,
            tag,
            message.substr(0, fileEnd),
            message.substr(fileEnd + 2, lineStart - fileEnd - 2),
            std::atoi(message.c_str() + lineStart + 1),
            message.substr(siteEnd + 4),
            buffer};
}

}  // namespace

extern "C" {

int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    if (Platform().mute.load(std::memory_order_relaxed)) {
        return 0;
    }
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return -1;
    }
    Platform().KeepLog(Parse(buffer, priority, tag, text));
    std::free(text);
    return Platform().Unheeded("logsvc_print");
}

int regdb_get_bool(const char* key, int* value) {
    Platform().Note("regdb_get_bool");
    if (std::strcmp(key, kKey) != 0) {
        return kNoSuchKey;
    }
    if (Platform().keyResult == 0) {
        *value = Platform().keyValue;
    }
    return Platform().keyResult;
}

int regdb_notify_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*),
                             void* user_data) {
    Platform().Note("regdb_notify_key_changed");
    if (std::strcmp(key, kKey) != 0) {
        return kNoSuchKey;
    }
    if (Platform().notifyResult == 0) {
        Platform().AddWatcher({key, callback, user_data});
    }
    return Platform().notifyResult;
}

int regdb_ignore_key_changed(const char* key, void (*callback)(struct _keynode_t*, void*)) {
    Platform().Note("regdb_ignore_key_changed");
    const int removed = Platform().RemoveWatcher({key, callback, nullptr});
    return Platform().ignoreResult != 0 ? Platform().ignoreResult : removed;
}

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo) {
    Platform().Note("appcat_appinfo_get_usr_appinfo");
    Platform().NoteApp(app_id, uid);
    if (Platform().appInfoResult == 0 && !Platform().appInfoNull) {
        *appinfo = MakeHandle<appcat_appinfo_h>();
    }
    return Platform().appInfoResult;
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h /*appinfo*/, char** pkgid) {
    static char id[] = "org.example.package";
    Platform().Note("appcat_appinfo_get_pkgid");
    if (Platform().pkgIdResult == 0 && !Platform().pkgIdNull) {
        *pkgid = id;
    }
    return Platform().pkgIdResult;
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo) {
    Platform().Note("appcat_appinfo_destroy_appinfo");
    FreeHandle(appinfo);
    return Platform().Unheeded("appcat_appinfo_destroy_appinfo");
}

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    Platform().Note("appcat_pkginfo_get_pkginfo");
    Platform().NotePackage(pkgid);
    if (Platform().pkgInfoResult == 0 && !Platform().pkgInfoNull) {
        *pkginfo = MakeHandle<appcat_pkginfo_h>();
    }
    return Platform().pkgInfoResult;
}

int appcat_pkginfo_get_version(appcat_pkginfo_h /*pkginfo*/, char** version) {
    Platform().Note("appcat_pkginfo_get_version");
    if (!Platform().versionNull) {
        *version = Platform().version.data();
    }
    return Platform().versionResult;
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    Platform().Note("appcat_pkginfo_destroy_pkginfo");
    FreeHandle(pkginfo);
    return Platform().Unheeded("appcat_pkginfo_destroy_pkginfo");
}

int connection_create(connection_h* connection) {
    Platform().Note("connection_create");
    if (Platform().connectionCreateResult == 0) {
        *connection = MakeHandle<connection_h>();
    }
    return Platform().connectionCreateResult;
}

int connection_destroy(connection_h connection) {
    Platform().Note("connection_destroy");
    if (Platform().connectionDestroyResult == 0) {
        Platform().RemoveMonitor(connection);
        FreeHandle(connection);
    }
    return Platform().connectionDestroyResult;
}

int connection_set_network_monitor_cb(connection_h connection,
                                      void (*callback)(connection_error_e, char*, void*),
                                      void* user_data) {
    Platform().Note("connection_set_network_monitor_cb");
    if (Platform().monitorResult == 0) {
        Platform().AddMonitor({connection, callback, user_data});
    }
    return Platform().monitorResult;
}

int connection_unset_network_monitor_cb(connection_h connection) {
    Platform().Note("connection_unset_network_monitor_cb");
    Platform().RemoveMonitor(connection);
    return Platform().Unheeded("connection_unset_network_monitor_cb");
}

int connection_get_type(connection_h connection, int* type) {
    Platform().Note("connection_get_type");
    if (connection == nullptr) {
        return -1;
    }
    if (Platform().connectionTypeResult == 0) {
        *type = Platform().connectionType;
    }
    return Platform().connectionTypeResult;
}

int connection_profile_check_default_gateway(bool* connected) {
    Platform().Note("connection_profile_check_default_gateway");
    *connected = Platform().gatewayConnected;
    return Platform().gatewayResult;
}

int wifi_manager_initialize(wifi_manager_h* wifi) {
    Platform().Note("wifi_manager_initialize");
    if (Platform().wifiResult == 0 && !Platform().wifiNull) {
        *wifi = MakeHandle<wifi_manager_h>();
    }
    return Platform().wifiResult;
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    Platform().Note("wifi_manager_deinitialize");
    FreeHandle(wifi);
    return Platform().Unheeded("wifi_manager_deinitialize");
}

int wifi_manager_get_connected_ap(wifi_manager_h /*wifi*/, wifi_manager_ap_h* ap) {
    Platform().Note("wifi_manager_get_connected_ap");
    if (Platform().apResult == 0 && !Platform().apNull) {
        *ap = MakeHandle<wifi_manager_ap_h>();
    }
    return Platform().apResult;
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h /*ap*/, int* rssi) {
    Platform().Note("wifi_manager_ap_get_rssi");
    if (Platform().rssiResult == 0) {
        *rssi = Platform().rssi;
    }
    return Platform().rssiResult;
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    Platform().Note("wifi_manager_ap_destroy");
    FreeHandle(ap);
    return Platform().Unheeded("wifi_manager_ap_destroy");
}

}  // extern "C"
