// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Test.h"
#include "wifi_manager.h"

namespace {

// A test cannot create a radio, so it covers machines without one.
TEST(WifiManager, ReportsAMissingDevice) {
    if (std::filesystem::exists("/sys/class/ieee80211") &&
        !std::filesystem::is_empty("/sys/class/ieee80211")) {
        GTEST_SKIP() << "this machine has a wireless device";
    }
    wifi_manager_h wifi = nullptr;
    EXPECT_EQ(wifi_manager_initialize(&wifi), WIFI_MANAGER_ERROR_NO_DEVICE);
    EXPECT_EQ(wifi, nullptr);
}

TEST(WifiManager, RejectsInvalidParameters) {
    EXPECT_EQ(wifi_manager_initialize(nullptr), WIFI_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wifi_manager_get_connected_ap(nullptr, nullptr),
              WIFI_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wifi_manager_ap_get_rssi(nullptr, nullptr), WIFI_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wifi_manager_ap_destroy(nullptr), WIFI_MANAGER_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(wifi_manager_deinitialize(nullptr), WIFI_MANAGER_ERROR_INVALID_PARAMETER);
}

}  // namespace
