// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef WIFI_MANAGER_H
#define WIFI_MANAGER_H

/**
 * The platform's Wi-Fi: the access point the device is connected to, and how strong its signal is.
 *
 * On the Linux platform this is what the kernel tells through nl80211. No special right is needed.
 *
 * Threads: every function may be called from any thread. One handle may be used by several threads,
 * except while or after it is given back.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** What the functions of this header return. */
enum wifi_manager_error {
    WIFI_MANAGER_ERROR_NONE = 0,               /**< Success. */
    WIFI_MANAGER_ERROR_INVALID_PARAMETER = -1, /**< A NULL handle or pointer. */
    WIFI_MANAGER_ERROR_NO_DEVICE = -2,         /**< The machine has no wireless device. */
    WIFI_MANAGER_ERROR_NO_CONNECTION = -3,     /**< No access point, or no longer that one. */
    WIFI_MANAGER_ERROR_NO_SIGNAL = -4,         /**< The driver tells no signal strength. */
    WIFI_MANAGER_ERROR_OUT_OF_MEMORY = -5,     /**< No memory. */
    WIFI_MANAGER_ERROR_OPERATION_FAILED = -6   /**< The kernel refused. */
};

/** A user of the Wi-Fi; freed by wifi_manager_deinitialize(). */
typedef struct wifi_manager_s* wifi_manager_h;

/** An access point as it was connected when asked for; freed by wifi_manager_ap_destroy(). */
typedef struct wifi_manager_ap_s* wifi_manager_ap_h;

/**
 * Creates a handle.
 *
 * @param wifi  Receives the handle, which the caller gives to wifi_manager_deinitialize();
 *              untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _OUT_OF_MEMORY or _OPERATION_FAILED of
 *         wifi_manager_error.
 */
int wifi_manager_initialize(wifi_manager_h* wifi);

/**
 * Frees a handle. Access points got through it stay valid.
 *
 * @param wifi  A handle of wifi_manager_initialize(), not used afterwards.
 * @return 0, or _INVALID_PARAMETER of wifi_manager_error for NULL.
 */
int wifi_manager_deinitialize(wifi_manager_h wifi);

/**
 * Gives the access point that the device is connected to; with several wireless interfaces, that of
 * the first which is connected.
 *
 * @param wifi  A handle of wifi_manager_initialize().
 * @param ap    Receives a handle that the caller destroys; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _NO_CONNECTION, _OUT_OF_MEMORY or _OPERATION_FAILED
 *         of wifi_manager_error.
 */
int wifi_manager_get_connected_ap(wifi_manager_h wifi, wifi_manager_ap_h* ap);

/**
 * Reads the present signal strength of an access point.
 *
 * @param ap    A handle of wifi_manager_get_connected_ap().
 * @param rssi  Receives the strength in dBm, a negative number: about -30 close by, -90 at the edge
 *              of reception. Untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _NO_CONNECTION, _NO_SIGNAL, _OUT_OF_MEMORY or
 *         _OPERATION_FAILED of wifi_manager_error.
 */
int wifi_manager_ap_get_rssi(wifi_manager_ap_h ap, int* rssi);

/**
 * Gives a handle back.
 *
 * @param ap  A handle of wifi_manager_get_connected_ap(), not used afterwards.
 * @return 0, or _INVALID_PARAMETER of wifi_manager_error for NULL.
 */
int wifi_manager_ap_destroy(wifi_manager_ap_h ap);

#ifdef __cplusplus
}
#endif

#endif  // WIFI_MANAGER_H
