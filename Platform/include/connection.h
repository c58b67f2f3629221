// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef CONNECTION_H
#define CONNECTION_H

#include <stdbool.h>

/**
 * @file
 * The platform's view of the network: whether the device is connected, the type of the connection,
 * and notifications of changes.
 *
 * On the Linux platform the device is connected while the kernel has a default route, IPv4 or IPv6.
 * The type is that of the route's link. Of several default routes, IPv4 routes are preferred to
 * IPv6 routes, and then the one with the lowest metric is used. Functions see the network namespace
 * of the calling thread. A monitor keeps the namespace of the thread that set it.
 *
 * Threads: every function may be called from any thread, and several threads may call at the same
 * time. Several threads may use one handle, but none during or after connection_destroy().
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Return values of the functions, and results that a monitor reports. Has the size of an int. */
typedef enum {
    CONNECTION_ERROR_NONE = 0,                /**< Success; a default route exists. */
    CONNECTION_ERROR_INVALID_PARAMETER = -1,  /**< A NULL handle or pointer. */
    CONNECTION_ERROR_NO_CONNECTION = -2,      /**< The last default route is gone. */
    CONNECTION_ERROR_ALREADY_REGISTERED = -3, /**< The handle already has a monitor. */
    CONNECTION_ERROR_NOT_REGISTERED = -4,     /**< The handle has no monitor. */
    CONNECTION_ERROR_OUT_OF_MEMORY = -5,      /**< Allocation failed. */
    CONNECTION_ERROR_OPERATION_FAILED = -6    /**< A system call failed. */
} connection_error_e;

/** Connection types that connection_get_type() reports. */
enum connection_type {
    CONNECTION_TYPE_DISCONNECTED = 0, /**< No default route. */
    CONNECTION_TYPE_WIFI = 1,         /**< A wireless link. */
    CONNECTION_TYPE_CELLULAR = 2,     /**< A mobile broadband link. */
    CONNECTION_TYPE_ETHERNET = 3      /**< Any other link. */
};

/** A client of the network state. Free it with connection_destroy(). */
typedef struct connection_s* connection_h;

/**
 * Called when the default route changes.
 *
 * Threads: runs on a thread of the platform, one call at a time per handle, and needs no main loop.
 * Several changes in quick succession may cause a single call that reports the last state. The
 * callback may call any function of the platform, including those that unset its monitor or destroy
 * its handle. It must not throw.
 *
 * @param result     CONNECTION_ERROR_NONE when a default route has appeared or moved to another
 *                   link, CONNECTION_ERROR_NO_CONNECTION when the last one has disappeared. While
 *                   the platform cannot read the routes, it delays the call.
 * @param name       "GATEWAY". Owned by the platform and valid during the callback; do not modify
 *                   it.
 * @param user_data  The pointer passed when the monitor was set; still the caller's.
 */
typedef void (*connection_network_monitor_cb)(connection_error_e result, char* name,
                                              void* user_data);

/**
 * Creates a handle. Threads: any.
 *
 * @param connection  Receives a handle that the caller destroys. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of connection_error_e.
 */
int connection_create(connection_h* connection);

/**
 * Unsets the monitor as connection_unset_network_monitor_cb() does, and frees the handle.
 * Threads: any, while no other uses the handle; may be the thread of the handle's own callback.
 *
 * @param connection  A handle from connection_create(). Do not use it afterwards.
 * @return 0, or _INVALID_PARAMETER of connection_error_e for NULL.
 */
int connection_destroy(connection_h connection);

/**
 * Sets the monitor of a handle. The monitor reports changes that happen after this call has
 * returned; it does not report the current state. Threads: any.
 *
 * @param connection  A handle without a monitor.
 * @param callback    The function to call.
 * @param user_data   Passed to the callback. The caller keeps ownership; it must stay valid until
 *                    the monitor is unset.
 * @return 0, or _INVALID_PARAMETER, _ALREADY_REGISTERED, _OUT_OF_MEMORY or _OPERATION_FAILED of
 *         connection_error_e. On failure no monitor is set.
 */
int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data);

/**
 * Unsets the monitor of a handle.
 *
 * Blocks while the callback runs: do not call this function while holding a lock that the callback
 * takes. When the function has returned, the callback is not running and will not start again.
 * A call inside the callback does not block; the running callback is then the last one.
 *
 * Threads: any, also that of the callback.
 *
 * @param connection  A handle with a monitor.
 * @return 0, or _INVALID_PARAMETER or _NOT_REGISTERED of connection_error_e.
 */
int connection_unset_network_monitor_cb(connection_h connection);

/**
 * Gets the type of the current connection. Threads: any.
 *
 * @param connection  A handle from connection_create().
 * @param type        Receives a CONNECTION_TYPE_ value. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _OPERATION_FAILED of connection_error_e.
 */
int connection_get_type(connection_h connection, int* type);

/**
 * Checks whether a default route exists. Threads: any.
 *
 * @param connected  Receives the answer. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _OPERATION_FAILED of connection_error_e.
 */
int connection_profile_check_default_gateway(bool* connected);

#ifdef __cplusplus
}
#endif

#endif  // CONNECTION_H
