// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Trial.h"

namespace {

constexpr std::initializer_list<int> kInvalid = {WIFI_MANAGER_ERROR_INVALID_PARAMETER};
constexpr int kStrongest = 0;
constexpr int kWeakest = -150;

[[noreturn]] void NoWifi(CTrial& trial, const std::string& function, int result) {
    trial.NotTried("no connected Wi-Fi: " + function + " returned " + std::to_string(result));
}

wifi_manager_h Initialize(CTrial& trial) {
    wifi_manager_h wifi = nullptr;
    const int result = trial.Functions().wifi_manager_initialize(&wifi);
    if (result != 0) {
        NoWifi(trial, "wifi_manager_initialize", result);
    }
    return wifi;
}

wifi_manager_ap_h ConnectedAp(CTrial& trial, wifi_manager_h wifi) {
    wifi_manager_ap_h ap = nullptr;
    const int result = trial.Functions().wifi_manager_get_connected_ap(wifi, &ap);
    if (result != 0) {
        NoWifi(trial, "wifi_manager_get_connected_ap", result);
    }
    return ap;
}

void ReadStrength(CTrial& trial, wifi_manager_ap_h ap) {
    int rssi = 1;
    trial.Succeed(trial.Functions().wifi_manager_ap_get_rssi, ap, &rssi);
    trial.Expect(rssi < kStrongest && rssi > kWeakest,
                 "wifi_manager_ap_get_rssi gave " + std::to_string(rssi) + " dBm");
}

// Without a device or an access point.
void TryAbsence(CTrial& trial) {
    const auto& initialize = trial.Functions().wifi_manager_initialize;
    const auto& getAp = trial.Functions().wifi_manager_get_connected_ap;
    auto wifi = Untouched<wifi_manager_h>();
    if (const int result = initialize(&wifi); result != 0) {
        trial.Expect(wifi == Untouched<wifi_manager_h>(),
                     "wifi_manager_initialize failed and changed the handle");
        trial.ExpectError(initialize.Name(), result, " without Wi-Fi",
                          {WIFI_MANAGER_ERROR_NO_DEVICE});
        return;
    }
    auto ap = Untouched<wifi_manager_ap_h>();
    const int result = getAp(wifi, &ap);
    if (result == 0) {
        trial.NotTried("the Wi-Fi is connected");
    }
    trial.Expect(ap == Untouched<wifi_manager_ap_h>(),
                 "wifi_manager_get_connected_ap failed and changed the handle");
    trial.ExpectError(getAp.Name(), result, " without Wi-Fi",
                      {WIFI_MANAGER_ERROR_NO_CONNECTION, WIFI_MANAGER_ERROR_NO_DEVICE});
    trial.Succeed(trial.Functions().wifi_manager_deinitialize, wifi);
}

void TryNull(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    wifi_manager_ap_h ap = nullptr;
    int rssi = 0;
    const std::string why = " for NULL";
    trial.Fail(why, kInvalid, platform.wifi_manager_initialize, nullptr);
    trial.Fail(why, kInvalid, platform.wifi_manager_deinitialize, nullptr);
    trial.Fail(why, kInvalid, platform.wifi_manager_get_connected_ap, nullptr, &ap);
    trial.Fail(why, kInvalid, platform.wifi_manager_ap_get_rssi, nullptr, &rssi);
    trial.Fail(why, kInvalid, platform.wifi_manager_ap_destroy, nullptr);
}

void TryNullResult(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    auto* wifi = Initialize(trial);
    trial.Fail(" for NULL", kInvalid, platform.wifi_manager_get_connected_ap, wifi, nullptr);
    auto* ap = ConnectedAp(trial, wifi);
    trial.Fail(" for NULL", kInvalid, platform.wifi_manager_ap_get_rssi, ap, nullptr);
    trial.Succeed(platform.wifi_manager_ap_destroy, ap);
    trial.Succeed(platform.wifi_manager_deinitialize, wifi);
}

void TryStrength(CTrial& trial) {
    auto* wifi = Initialize(trial);
    auto* ap = ConnectedAp(trial, wifi);
    ReadStrength(trial, ap);
    trial.Succeed(trial.Functions().wifi_manager_ap_destroy, ap);
    trial.Succeed(trial.Functions().wifi_manager_deinitialize, wifi);
}

void TryLifetime(CTrial& trial) {
    auto* wifi = Initialize(trial);
    auto* ap = ConnectedAp(trial, wifi);
    trial.Succeed(trial.Functions().wifi_manager_deinitialize, wifi);
    ReadStrength(trial, ap);
    trial.Succeed(trial.Functions().wifi_manager_ap_destroy, ap);
}

void TryThreads(CTrial& trial) {
    auto* wifi = Initialize(trial);
    auto* shared = ConnectedAp(trial, wifi);
    trial.AtOnce([&] {
        auto* ap = ConnectedAp(trial, wifi);
        ReadStrength(trial, ap);
        ReadStrength(trial, shared);
        trial.Succeed(trial.Functions().wifi_manager_ap_destroy, ap);
    });
}

}  // namespace

std::vector<Check> WifiChecks() {
    return {
        {"wifi_manager.h", "no device or no connection is an error and leaves the handle as it is",
         &TryAbsence},
        {"wifi_manager.h", "NULL is an error", &TryNull},
        {"wifi_manager.h", "NULL in place of an access point or a strength is an error",
         &TryNullResult},
        {"wifi_manager.h", "the connected access point has a signal strength below 0 dBm",
         &TryStrength},
        {"wifi_manager.h", "an access point stays valid after wifi_manager_deinitialize",
         &TryLifetime},
        {"wifi_manager.h", "several threads may use one handle at once", &TryThreads},
    };
}
