// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef REGDB_H
#define REGDB_H

/**
 * @file
 * The platform's settings store: persistent named integers that any process may read and watch.
 *
 * A key is a path, for example "db/tallyra/log_on". The part after the last slash is the name; the
 * part before it is the group. Neither may be empty, or contain a control character or a square
 * bracket. The name contains no '=', does not start with '#', and neither starts nor ends with a
 * blank.
 *
 * On the Linux platform the store is a key file, the format of desktop entries:
 *
 *     [db/tallyra]
 *     log_on=1
 *
 * Its path is $REGDB_FILE. If that is not set, the path is /var/lib/regdb/regdb.ini for root and
 * $XDG_STATE_HOME/regdb/regdb.ini for other users, where XDG_STATE_HOME defaults to ~/.local/state.
 * Each read determines the path again. A watch keeps the path of the first registration. Writers
 * replace the file atomically.
 *
 * Threads: every function may be called from any thread at any time, and several threads may call
 * at the same time.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Return values of the functions of this header. */
enum regdb_error {
    REGDB_ERROR_NONE = 0,               /**< Success. */
    REGDB_ERROR_INVALID_PARAMETER = -1, /**< A NULL pointer or a malformed key. */
    REGDB_ERROR_NO_FILE = -2,           /**< The store does not exist yet. */
    REGDB_ERROR_NO_KEY = -3,            /**< The store does not contain the key. */
    REGDB_ERROR_UNREADABLE = -4,        /**< The store exists but cannot be read. */
    REGDB_ERROR_MALFORMED_FILE = -5,    /**< The store is not a key file. */
    REGDB_ERROR_MALFORMED_VALUE = -6,   /**< The value is not an integer, or does not fit an int. */
    REGDB_ERROR_NOT_REGISTERED = -7,    /**< The callback is not registered for the key. */
    REGDB_ERROR_OUT_OF_MEMORY = -8,     /**< Allocation failed. */
    REGDB_ERROR_SYSTEM = -9             /**< The system refused a thread or a descriptor. */
};

struct _keynode_t;
/** The changed key of a notification. Opaque; valid during the callback only. */
typedef struct _keynode_t keynode_t;

/**
 * Called after the value of a watched key has changed, or the key was added or removed.
 *
 * Threads: runs on the store's own thread, one call at a time, and needs no main loop. Several
 * changes in quick succession may cause a single call, so read the value instead of counting calls.
 * If the store becomes malformed or unreadable, all its keys count as removed. While the process
 * has no free descriptor to read the store, the platform delays the call. The callback may call any
 * function of the platform, including those that register or remove it. It must not throw.
 *
 * @param node       The key; owned by the platform.
 * @param user_data  The pointer passed at registration; still the caller's.
 */
typedef void (*regdb_key_changed_cb)(struct _keynode_t* node, void* user_data);

/**
 * Reads a key. Threads: any.
 *
 * @param key    The key. Not kept.
 * @param value  Receives the stored integer: by convention 0 for off and 1 for on, but any other
 *               int is returned as it is. The file contains it as decimal digits after an optional
 *               '-'. Unchanged on failure.
 * @return 0, or a value of regdb_error: _INVALID_PARAMETER, _NO_FILE, _NO_KEY, _UNREADABLE,
 *         _MALFORMED_FILE, _MALFORMED_VALUE, _OUT_OF_MEMORY or _SYSTEM.
 */
int regdb_get_bool(const char* key, int* value);

/**
 * Watches a key. The key, the store and the store's folder need not exist yet. Threads: any, also
 * that of a callback.
 *
 * The callback reports changes that happen after this call has returned; it does not report the
 * current value. A callback may be registered several times, even for the same key, and is then
 * called once for each registration, in the order of registration.
 *
 * All watches of a process together use two descriptors. If the system refuses them, or the host
 * closes them, the platform polls the store once a second until it can open two again, and still
 * reports changes. A forked child inherits no registration, and may register its own.
 *
 * @param key        The key. Copied.
 * @param callback   The function to call.
 * @param user_data  Passed to the callback. The caller keeps ownership; it must stay valid until
 *                   regdb_ignore_key_changed() has returned.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _SYSTEM of regdb_error. On failure nothing is
 *         registered.
 */
int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data);

/**
 * Removes all registrations of a callback for a key, whatever their user data.
 *
 * Blocks while the callback runs for that key: do not call this function while holding a lock that
 * the callback takes. When the function has returned, the callback is not running for that key and
 * will not start again. A call inside the callback does not block; the running callback is then the
 * last one.
 *
 * Threads: any, also that of the callback.
 *
 * @param key       The key. Not kept.
 * @param callback  The callback that was registered for the key.
 * @return 0, or _INVALID_PARAMETER, _NOT_REGISTERED or _OUT_OF_MEMORY of regdb_error.
 */
int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback);

#ifdef __cplusplus
}
#endif

#endif  // REGDB_H
