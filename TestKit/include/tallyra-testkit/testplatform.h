// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_TESTPLATFORM_H
#define TALLYRA_TESTKIT_TESTPLATFORM_H

#include <stddef.h>

/**
 * @file
 * A platform that a test of a player steers: libtallyra-testplatform.so implements the functions of
 * the five platform headers, and answers as the functions of this header tell it.
 *
 * A test that links with `-ltallyra-testplatform`, before any other platform, uses it in place of
 * the device's platform. A program that is not built for it can preload it:
 *
 *     LD_PRELOAD=libtallyra-testplatform.so.1 TALLYRA_TESTPLATFORM_NETWORK=wifi ./my-player
 *
 * In the initial state everything works. The environment changes that state. It is read once, at
 * the first call in the process; a value that makes no sense is reported on standard error and
 * ignored:
 *
 * - `TALLYRA_TESTPLATFORM_KEY`: value of the key db/tallyra/log_on, a decimal int; or "missing".
 *   Only 1 switches collection on. Default: 1.
 * - `TALLYRA_TESTPLATFORM_NETWORK`: none, wifi, cellular or ethernet. Default: ethernet.
 * - `TALLYRA_TESTPLATFORM_RSSI`: signal strength in dBm. Default: -55.
 * - `TALLYRA_TESTPLATFORM_VERSION`: version of every application's package; empty if the platform
 *   knows no application. Default: 1.0.0.
 * - `TALLYRA_TESTPLATFORM_FAIL`: calls that fail: FUNCTION=ERROR for all calls of a function,
 *   FUNCTION=ERROR:N for the N-th one; separated by commas. Default: none. Example:
 *   `regdb_get_bool=-4,connection_create=-5:2`
 * - `TALLYRA_TESTPLATFORM_LOG`: a file to which all log lines are appended, as "I/TAG: text".
 *   "-" is standard error. Default: none.
 *
 * Callbacks of the settings run on one thread of this platform, those of the network on another
 * one, never on a thread of the caller, and one after the other in the order of the changes. A
 * callback that was registered twice for a key is called twice for each change, and
 * regdb_ignore_key_changed() removes both registrations.
 *
 * Fork: a forked child has a platform of its own, in the initial state and without registrations.
 *
 * Threads: every function may be called from any thread at any time, also inside a callback of the
 * platform. None waits for a callback unless it says so.
 *
 * Errors: functions that return an int return 0 on success, or a value of
 * tallyra_testplatform_error. Each may return _OUT_OF_MEMORY. A call with an invalid argument
 * changes nothing.
 *
 * Ownership: strings that are passed are copied. All are UTF-8 and zero-terminated.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Return values of the functions of this header. */
enum tallyra_testplatform_error {
    TALLYRA_TESTPLATFORM_ERROR_NONE = 0,               /**< Success. */
    TALLYRA_TESTPLATFORM_ERROR_INVALID_PARAMETER = -1, /**< An argument is outside of its range. */
    TALLYRA_TESTPLATFORM_ERROR_OUT_OF_MEMORY = -2,     /**< Allocation failed. */
    TALLYRA_TESTPLATFORM_ERROR_TIMEOUT = -3            /**< What was waited for did not happen. */
};

/** The key with which a device switches collection on and off. */
#define TALLYRA_TESTPLATFORM_LOG_ON "db/tallyra/log_on"

/** A line of the platform's log. */
struct tallyra_testplatform_line {
    int buffer;       /**< LOGSVC_MAIN. */
    int priority;     /**< LOGSVC_DEBUG, LOGSVC_INFO or LOGSVC_ERROR. */
    const char* tag;  /**< The component's name; empty if it was NULL. */
    const char* text; /**< The formatted text, without a line break at its end. */
};

/**
 * Restores the initial state: settings, network, versions, failures. Forgets the log, the numbers
 * of calls and all registrations of callbacks. Handles stay valid.
 *
 * Blocks while a callback runs, except inside any of them. Call it between two tests, when nothing
 * uses the platform: code whose registration is forgotten hears of no further change.
 *
 * Threads: any.
 *
 * @return 0, or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_reset(void);

/**
 * Sets a key. If its value changes, its callbacks are called soon afterwards.
 *
 * Threads: any.
 *
 * @param key    A path with a name behind its last slash, such as TALLYRA_TESTPLATFORM_LOG_ON. The
 *               key need not exist. Copied.
 * @param value  Any int. For TALLYRA_TESTPLATFORM_LOG_ON, 1 is on and any other value off.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_set_key(const char* key, int value);

/**
 * Removes a key: reading it fails with REGDB_ERROR_NO_KEY. If the key existed, its callbacks are
 * called soon afterwards.
 *
 * Threads: any.
 *
 * @param key  As for tallyra_testplatform_set_key(). Not kept.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_remove_key(const char* key);

/**
 * Connects the device to a network or disconnects it: sets the type and the default gateway, and
 * reports "GATEWAY" to all monitors soon afterwards, with CONNECTION_ERROR_NONE or, for type 0,
 * CONNECTION_ERROR_NO_CONNECTION.
 *
 * An access point is connected only while the type is 1.
 *
 * Threads: any.
 *
 * @param type  A CONNECTION_TYPE_ value: 0 disconnected, 1 Wi-Fi, 2 cellular, 3 Ethernet.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_set_network(int type);

/**
 * Sets what connection_profile_check_default_gateway() answers, and nothing else: no monitor is
 * called, and the type stays. For a platform whose answers do not match.
 *
 * Threads: any.
 *
 * @param connected  0, or any other value for a default gateway.
 * @return 0, or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_set_gateway(int connected);

/**
 * Calls all monitors of the network soon afterwards, and changes nothing else.
 *
 * Threads: any.
 *
 * @param result  The result they receive: 0 or a negative value of connection_error_e.
 * @param name    The name they receive; a platform reports "GATEWAY". Not NULL; copied.
 * @return 0, or _INVALID_PARAMETER or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_report_network(int result, const char* name);

/**
 * Sets the signal strength of the connected access point.
 *
 * Threads: any.
 *
 * @param dbm  Strength in dBm; -30 to -90 on a real device, any int here.
 * @return 0, or _OUT_OF_MEMORY of tallyra_testplatform_error.
 */
int tallyra_testplatform_set_rssi(int dbm);

/**
 * Sets the version of an application's package. The package has the application's identifier.
 *
 * Threads: any.
 *
 * @param app_id   The application; NULL for all that have no version of their own. Copied.
 * @param version  Its version. Empty: its package has no version, and asking for it fails. NULL:
 *                 the platform does not know the application. Copied.
 * @return 0, or _INVALID_PARAMETER (an empty identifier, or one with a "/") or _OUT_OF_MEMORY of
 *         tallyra_testplatform_error.
 */
int tallyra_testplatform_set_version(const char* app_id, const char* version);

/**
 * Makes calls of a function of the platform fail. Replaces what was set for that function before.
 *
 * A call that fails returns the error and does nothing else, except that functions that free a
 * handle or remove a callback do so in any case. A log line whose call fails is not kept.
 *
 * Threads: any.
 *
 * @param function  Name of one of the 21 functions, such as "regdb_get_bool". Not kept.
 * @param nth       Which call fails, counted from now on, beginning with 1; 0 for all.
 * @param error     What it returns; 0 lets all calls of the function work again.
 * @return 0, or _INVALID_PARAMETER (no such function) of tallyra_testplatform_error.
 */
int tallyra_testplatform_fail(const char* function, unsigned int nth, int error);

/**
 * Counts the calls of a function.
 *
 * Threads: any.
 *
 * @param function  Name of one of the 21 functions. Not kept.
 * @return how often it was called since the start or the last reset, failed calls included; -1 if
 *         there is no such function.
 */
long tallyra_testplatform_calls(const char* function);

/**
 * Waits until all callbacks have returned that changes and reports before this call have caused.
 * Inside a callback it does not wait, and times out if one of them is still to return.
 *
 * Threads: any.
 *
 * @param timeout_ms  How long to wait at most, in milliseconds; negative values count as 0.
 * @return 0, or _TIMEOUT of tallyra_testplatform_error.
 */
int tallyra_testplatform_wait_for_callbacks(int timeout_ms);

/**
 * Counts the log lines.
 *
 * Threads: any.
 *
 * @return the number of log lines since the start or the last reset, which are all kept.
 */
size_t tallyra_testplatform_log_count(void);

/**
 * Gets a log line.
 *
 * Threads: any.
 *
 * @param index  Its number, from 0 to tallyra_testplatform_log_count() - 1, oldest first.
 * @param line   Receives the line. The platform owns its strings, which stay valid until the next
 *               tallyra_testplatform_reset(). Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER of tallyra_testplatform_error.
 */
int tallyra_testplatform_log_line(size_t index, struct tallyra_testplatform_line* line);

/**
 * Waits for a log line.
 *
 * Threads: any.
 *
 * @param part        What its text contains. Not NULL; not kept.
 * @param first       Number of the first line that counts: 0 for all. To wait for a further line,
 *                    pass the number of the last one, plus 1.
 * @param timeout_ms  How long to wait at most, in milliseconds; negative values count as 0.
 * @return the number of the first such line; or _INVALID_PARAMETER or _TIMEOUT of
 *         tallyra_testplatform_error.
 */
long tallyra_testplatform_wait_for_log(const char* part, size_t first, int timeout_ms);

#ifdef __cplusplus
}
#endif

#endif  // TALLYRA_TESTKIT_TESTPLATFORM_H
