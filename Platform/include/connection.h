// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef CONNECTION_H
#define CONNECTION_H

#include <stdbool.h>

/**
 * The platform's view of the network: whether the device is connected, through what, and when that
 * changes.
 *
 * On the Linux platform the device is connected when the kernel has a default route, IPv4 or IPv6;
 * the type is that of the link which carries the route with the best metric, IPv4 before IPv6. All
 * is seen in the network namespace of the calling thread; a monitor keeps to that of the thread
 * which set it.
 *
 * Threads: every function may be called from any thread. One handle may be used by several threads,
 * except that no other call may use it during or after connection_destroy().
 */

#ifdef __cplusplus
extern "C" {
#endif

/** What the functions of this header return, and what a monitor reports. As wide as an int. */
typedef enum {
    CONNECTION_ERROR_NONE = 0,                /**< Success; the gateway is there. */
    CONNECTION_ERROR_INVALID_PARAMETER = -1,  /**< A NULL handle or pointer. */
    CONNECTION_ERROR_NO_CONNECTION = -2,      /**< The last default route has gone. */
    CONNECTION_ERROR_ALREADY_REGISTERED = -3, /**< The handle has a monitor. */
    CONNECTION_ERROR_NOT_REGISTERED = -4,     /**< The handle has no monitor. */
    CONNECTION_ERROR_OUT_OF_MEMORY = -5,      /**< No memory. */
    CONNECTION_ERROR_OPERATION_FAILED = -6    /**< The kernel or the system refused. */
} connection_error_e;

/** The type of connection, as connection_get_type() gives it. */
enum connection_type {
    CONNECTION_TYPE_DISCONNECTED = 0, /**< No default route. */
    CONNECTION_TYPE_WIFI = 1,         /**< A wireless link. */
    CONNECTION_TYPE_CELLULAR = 2,     /**< A mobile broadband link. */
    CONNECTION_TYPE_ETHERNET = 3      /**< Any other link. */
};

/** A user of the network state; freed by connection_destroy(). */
typedef struct connection_s* connection_h;

/**
 * Called when the connection changes.
 *
 * Runs on a thread of the platform, one call at a time for each handle, and needs no main loop of
 * the host. Several changes in quick succession may arrive as one call that tells the last state.
 * The callback may call any function of the platform, also to unset itself or to destroy its
 * handle. It must not throw.
 *
 * @param result     CONNECTION_ERROR_NONE when a default route has come or has moved to another
 *                   link; CONNECTION_ERROR_NO_CONNECTION when the last one has gone. A state that
 *                   cannot be read is told when it can be.
 * @param name       "GATEWAY". Belongs to the platform; valid during the callback; not to be
 *                   written.
 * @param user_data  What was passed when the monitor was set.
 */
typedef void (*connection_network_monitor_cb)(connection_error_e result, char* name,
                                              void* user_data);

/**
 * Creates a handle.
 *
 * @param connection  Receives the handle, which the caller destroys; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of connection_error_e.
 */
int connection_create(connection_h* connection);

/**
 * Ends the handle's monitor as connection_unset_network_monitor_cb() does, and frees the handle.
 *
 * @param connection  A handle of connection_create(), not used afterwards.
 * @return 0, or _INVALID_PARAMETER of connection_error_e for NULL.
 */
int connection_destroy(connection_h connection);

/**
 * Sets the monitor of a handle. Changes after the call has returned are reported; the state at the
 * time of the call is not.
 *
 * @param connection  A handle without a monitor.
 * @param callback    What to call.
 * @param user_data   Handed to the callback; stays the caller's, and must live until the monitor is
 *                    unset.
 * @return 0, or _INVALID_PARAMETER, _ALREADY_REGISTERED, _OUT_OF_MEMORY or _OPERATION_FAILED of
 *         connection_error_e; then nothing is watched.
 */
int connection_set_network_monitor_cb(connection_h connection,
                                      connection_network_monitor_cb callback, void* user_data);

/**
 * Ends the monitor of a handle.
 *
 * When the call has returned, the callback is not running and will not start; only when it is made
 * from inside the callback itself does that one run to its end afterwards. The call therefore waits
 * for a callback that is running: do not make it while holding a lock that the callback takes.
 *
 * @param connection  A handle with a monitor.
 * @return 0, or _INVALID_PARAMETER or _NOT_REGISTERED of connection_error_e.
 */
int connection_unset_network_monitor_cb(connection_h connection);

/**
 * Gives the type of the present connection.
 *
 * @param connection  A handle of connection_create().
 * @param type        Receives a CONNECTION_TYPE_ value; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _OPERATION_FAILED of connection_error_e.
 */
int connection_get_type(connection_h connection, int* type);

/**
 * Tells whether there is a default route. Needs no handle.
 *
 * @param connected  Receives the answer; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _OPERATION_FAILED of connection_error_e.
 */
int connection_profile_check_default_gateway(bool* connected);

#ifdef __cplusplus
}
#endif

#endif  // CONNECTION_H
