// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef WIFI_MANAGER_H
#define WIFI_MANAGER_H

/**
 * @file
 * The platform's Wi-Fi: the connected access point and its signal strength.
 *
 * On the Linux platform the kernel reports both through nl80211, without special privileges.
 *
 * Threads: every function may be called from any thread, and several threads may call at the same
 * time. Several threads may use one handle, but none during or after its destruction.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Return values of the functions of this header. */
enum wifi_manager_error {
    WIFI_MANAGER_ERROR_NONE = 0,               /**< Success. */
    WIFI_MANAGER_ERROR_INVALID_PARAMETER = -1, /**< A NULL handle or pointer. */
    WIFI_MANAGER_ERROR_NO_DEVICE = -2,         /**< The machine has no wireless device. */
    WIFI_MANAGER_ERROR_NO_CONNECTION = -3, /**< Not connected, or no longer to that access point. */
    WIFI_MANAGER_ERROR_NO_SIGNAL = -4,     /**< The driver reports no signal strength. */
    WIFI_MANAGER_ERROR_OUT_OF_MEMORY = -5, /**< Allocation failed. */
    WIFI_MANAGER_ERROR_OPERATION_FAILED = -6 /**< A system call failed. */
};

/** A client of the Wi-Fi. Free it with wifi_manager_deinitialize(). */
typedef struct wifi_manager_s* wifi_manager_h;

/** The access point that was connected at the query. Free it with wifi_manager_ap_destroy(). */
typedef struct wifi_manager_ap_s* wifi_manager_ap_h;

/**
 * Creates a handle. Threads: any.
 *
 * @param wifi  Receives a handle that the caller frees with wifi_manager_deinitialize(). Unchanged
 *              on failure.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _OUT_OF_MEMORY or _OPERATION_FAILED of
 *         wifi_manager_error.
 */
int wifi_manager_initialize(wifi_manager_h* wifi);

/**
 * Frees a handle. Access points queried through it stay valid. Threads: any, while no other uses
 * the handle.
 *
 * @param wifi  A handle from wifi_manager_initialize(). Do not use it afterwards.
 * @return 0, or _INVALID_PARAMETER of wifi_manager_error for NULL.
 */
int wifi_manager_deinitialize(wifi_manager_h wifi);

/**
 * Gets the connected access point. If several wireless interfaces are connected, gets that of the
 * first one. Threads: any.
 *
 * @param wifi  A handle from wifi_manager_initialize().
 * @param ap    Receives a handle that the caller frees with wifi_manager_ap_destroy(). Unchanged on
 *              failure.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _NO_CONNECTION, _OUT_OF_MEMORY or _OPERATION_FAILED
 *         of wifi_manager_error.
 */
int wifi_manager_get_connected_ap(wifi_manager_h wifi, wifi_manager_ap_h* ap);

/**
 * Reads the current signal strength of an access point. Threads: any.
 *
 * @param ap    A handle from wifi_manager_get_connected_ap().
 * @param rssi  Receives the strength in dBm, a negative number: about -30 next to the access point,
 *              about -90 at the edge of reception. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER, _NO_DEVICE, _NO_CONNECTION, _NO_SIGNAL, _OUT_OF_MEMORY or
 *         _OPERATION_FAILED of wifi_manager_error.
 */
int wifi_manager_ap_get_rssi(wifi_manager_ap_h ap, int* rssi);

/**
 * Destroys a handle. Threads: any, while no other uses the handle.
 *
 * @param ap  A handle from wifi_manager_get_connected_ap(). Do not use it afterwards.
 * @return 0, or _INVALID_PARAMETER of wifi_manager_error for NULL.
 */
int wifi_manager_ap_destroy(wifi_manager_ap_h ap);

#ifdef __cplusplus
}
#endif

#endif  // WIFI_MANAGER_H
