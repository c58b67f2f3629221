// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The functions of the five platform headers.

#include "Guarded.h"
#include "PlatformHeaders.h"
#include "TestPlatform.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <utility>

struct _keynode_t {
    std::string key;
};

struct appcat_appinfo_s {
    std::string package;
};

struct appcat_pkginfo_s {
    std::string version;
};

struct connection_s {};

struct wifi_manager_s {};

struct wifi_manager_ap_s {};

namespace {

CTestPlatform& Platform() {
    return CTestPlatform::Instance();
}

// The headers give all invalid parameters this number, and failed allocations their own.
constexpr int kInvalidParameter = -1;

/// Makes a call: counts it, and runs it unless a test lets it fail or an argument is invalid.
template <class Function>
int Call(const char* pName, bool valid, int noMemory, Function function) {
    return Guarded<int>(noMemory, [&]() -> int {
        if (const int error = Platform().Begin(pName); error != 0) {
            return error;
        }
        return valid ? function() : kInvalidParameter;
    });
}

/// Frees a handle or removes a callback: does so even if a test lets the call fail.
template <class Function>
int CallAnyway(const char* pName, bool valid, int noMemory, Function function) {
    return Guarded<int>(noMemory, [&]() -> int {
        const int error = Platform().Begin(pName);
        const int result = valid ? function() : kInvalidParameter;
        return error != 0 ? error : result;
    });
}

template <class Handle>
int Free(const char* pName, Handle* handle) {
    // A caller with a handle has made a call before, so nothing is allocated.
    return CallAnyway(pName, handle != nullptr, kInvalidParameter, [&] {
        delete handle;
        return 0;
    });
}

CCallbacks::Subject SubjectOf(const char* pKey, regdb_key_changed_cb pCallback) {
    return {pKey, reinterpret_cast<std::uintptr_t>(pCallback)};
}

CCallbacks::Subject SubjectOf(connection_h hConnection) {
    return {"", reinterpret_cast<std::uintptr_t>(hConnection)};
}

bool IsOnWifi() {
    return Platform().Network() == CONNECTION_TYPE_WIFI;
}

/// @return the formatted text without a line break at its end; nothing if printf rejects it
LOGSVC_PRINTF(1, 0)
std::optional<std::string> Format(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): logsvc_print has begun it.
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return std::nullopt;
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, arguments);
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

LOGSVC_PRINTF(4, 0)
int Print(int buffer, int priority, const char* tag, const char* format, va_list arguments) {
    const bool isPriority =
        priority == LOGSVC_DEBUG || priority == LOGSVC_INFO || priority == LOGSVC_ERROR;
    return Guarded<int>(-ENOMEM, [&] {
        if (const int error = Platform().Begin("logsvc_print"); error != 0) {
            return error;
        }
        if (buffer != LOGSVC_MAIN || !isPriority || format == nullptr) {
            return -EINVAL;
        }
        auto text = Format(format, arguments);
        if (!text) {
            return -EINVAL;
        }
        Platform().Keep({buffer, priority, tag == nullptr ? "" : tag, std::move(*text)});
        return 0;
    });
}

}  // namespace

int logsvc_print(int buffer, int priority, const char* tag, const char* format, ...) {
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    const int result = Print(buffer, priority, tag, format, arguments);
    va_end(arguments);
    errno = error;
    return result;
}

int regdb_get_bool(const char* key, int* value) {
    return Call(__func__, IsKey(key) && value != nullptr, REGDB_ERROR_OUT_OF_MEMORY, [&]() -> int {
        const auto stored = Platform().Key(key);
        if (!stored) {
            return REGDB_ERROR_NO_KEY;
        }
        *value = *stored;
        return 0;
    });
}

int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data) {
    const bool valid = IsKey(key) && callback != nullptr;
    return Call(__func__, valid, REGDB_ERROR_OUT_OF_MEMORY, [&]() -> int {
        auto call = [node = std::make_shared<_keynode_t>(_keynode_t{key}), callback, user_data](
                        const CCallbacks::Event& /*none*/) { callback(node.get(), user_data); };
        return Platform().Settings().Add(SubjectOf(key, callback), std::move(call)) ==
                       CCallbacks::Addition::DONE
                   ? 0
                   : REGDB_ERROR_SYSTEM;
    });
}

int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback) {
    const bool valid = IsKey(key) && callback != nullptr;
    return CallAnyway(__func__, valid, REGDB_ERROR_OUT_OF_MEMORY, [&]() -> int {
        return Platform().Settings().Remove(SubjectOf(key, callback)) ? 0
                                                                      : REGDB_ERROR_NOT_REGISTERED;
    });
}

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t /*uid*/, appcat_appinfo_h* appinfo) {
    const bool valid = IsApplication(app_id) && appinfo != nullptr;
    return Call(__func__, valid, APPCAT_ERROR_OUT_OF_MEMORY, [&]() -> int {
        if (!Platform().Version(app_id)) {
            return APPCAT_ERROR_NOT_FOUND;
        }
        *appinfo = std::make_unique<appcat_appinfo_s>(appcat_appinfo_s{app_id}).release();
        return 0;
    });
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid) {
    return Call(__func__, appinfo != nullptr && pkgid != nullptr, APPCAT_ERROR_OUT_OF_MEMORY, [&] {
        *pkgid = appinfo->package.data();
        return 0;
    });
}

int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo) {
    return Free(__func__, appinfo);
}

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    const bool valid = IsApplication(pkgid) && pkginfo != nullptr;
    return Call(__func__, valid, APPCAT_ERROR_OUT_OF_MEMORY, [&]() -> int {
        auto version = Platform().Version(pkgid);
        if (!version) {
            return APPCAT_ERROR_NOT_FOUND;
        }
        *pkginfo = std::make_unique<appcat_pkginfo_s>(appcat_pkginfo_s{*version}).release();
        return 0;
    });
}

int appcat_pkginfo_get_version(appcat_pkginfo_h pkginfo, char** version) {
    return Call(__func__, pkginfo != nullptr && version != nullptr, APPCAT_ERROR_OUT_OF_MEMORY,
                [&]() -> int {
                    if (pkginfo->version.empty()) {
                        return APPCAT_ERROR_NO_VERSION;
                    }
                    *version = pkginfo->version.data();
                    return 0;
                });
}

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    return Free(__func__, pkginfo);
}

int connection_create(connection_h* connection) {
    return Call(__func__, connection != nullptr, CONNECTION_ERROR_OUT_OF_MEMORY, [&] {
        *connection = new connection_s;
        return 0;
    });
}

int connection_destroy(connection_h connection) {
    return CallAnyway(__func__, connection != nullptr, CONNECTION_ERROR_OUT_OF_MEMORY, [&] {
        Platform().Monitors().Remove(SubjectOf(connection));
        delete connection;
        return 0;
    });
}

int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data) {
    const bool valid = connection != nullptr && callback != nullptr;
    return Call(__func__, valid, CONNECTION_ERROR_OUT_OF_MEMORY, [&]() -> int {
        const auto call = [callback, user_data](const CCallbacks::Event& event) {
            std::string name = event.name;
            callback(static_cast<connection_error_e>(event.result), name.data(), user_data);
        };
        switch (Platform().Monitors().AddOnce(SubjectOf(connection), call)) {
            case CCallbacks::Addition::DONE:
                return CONNECTION_ERROR_NONE;
            case CCallbacks::Addition::THERE_BEFORE:
                return CONNECTION_ERROR_ALREADY_REGISTERED;
            case CCallbacks::Addition::NO_THREAD:
                break;
        }
        return CONNECTION_ERROR_OPERATION_FAILED;
    });
}

int connection_unset_network_monitor_cb(connection_h connection) {
    return CallAnyway(__func__, connection != nullptr, CONNECTION_ERROR_OUT_OF_MEMORY,
                      [&]() -> int {
                          return Platform().Monitors().Remove(SubjectOf(connection))
                                     ? CONNECTION_ERROR_NONE
                                     : CONNECTION_ERROR_NOT_REGISTERED;
                      });
}

int connection_get_type(connection_h connection, int* type) {
    return Call(__func__, connection != nullptr && type != nullptr, CONNECTION_ERROR_OUT_OF_MEMORY,
                [&] {
                    *type = Platform().Network();
                    return 0;
                });
}

int connection_profile_check_default_gateway(bool* connected) {
    return Call(__func__, connected != nullptr, CONNECTION_ERROR_OUT_OF_MEMORY, [&] {
        *connected = Platform().Gateway();
        return 0;
    });
}

int wifi_manager_initialize(wifi_manager_h* wifi) {
    return Call(__func__, wifi != nullptr, WIFI_MANAGER_ERROR_OUT_OF_MEMORY, [&] {
        *wifi = new wifi_manager_s;
        return 0;
    });
}

int wifi_manager_deinitialize(wifi_manager_h wifi) {
    return Free(__func__, wifi);
}

int wifi_manager_get_connected_ap(wifi_manager_h wifi, wifi_manager_ap_h* ap) {
    const bool valid = wifi != nullptr && ap != nullptr;
    return Call(__func__, valid, WIFI_MANAGER_ERROR_OUT_OF_MEMORY, [&]() -> int {
        if (!IsOnWifi()) {
            return WIFI_MANAGER_ERROR_NO_CONNECTION;
        }
        *ap = new wifi_manager_ap_s;
        return 0;
    });
}

int wifi_manager_ap_get_rssi(wifi_manager_ap_h ap, int* rssi) {
    return Call(__func__, ap != nullptr && rssi != nullptr, WIFI_MANAGER_ERROR_OUT_OF_MEMORY,
                [&]() -> int {
                    if (!IsOnWifi()) {
                        return WIFI_MANAGER_ERROR_NO_CONNECTION;
                    }
                    *rssi = Platform().Rssi();
                    return 0;
                });
}

int wifi_manager_ap_destroy(wifi_manager_ap_h ap) {
    return Free(__func__, ap);
}
