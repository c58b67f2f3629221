// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef REGDB_H
#define REGDB_H

/**
 * The platform's settings store: named integers that outlive the process and that any process may
 * watch.
 *
 * A key reads "db/tallyra/log_on": what stands behind the last slash is the name, what stands
 * before it the group. Both are non-empty and hold no control characters; the group holds no
 * square bracket, the name no '=', no bracket, no '#' in front and no blank at either end.
 *
 * On the Linux platform the store is one file of the form that desktop entries have,
 *
 *     [db/tallyra]
 *     log_on=1
 *
 * and its place is $REGDB_FILE, else /var/lib/regdb/regdb.ini for root, else
 * $XDG_STATE_HOME/regdb/regdb.ini, where XDG_STATE_HOME defaults to ~/.local/state. The place is
 * looked up at every read; watching stays with the place that was current when the first
 * registration was made. Whoever writes the file replaces it atomically.
 *
 * Threads: every function may be called from any thread at any time.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** What the functions of this header return. */
enum regdb_error {
    REGDB_ERROR_NONE = 0,               /**< Success. */
    REGDB_ERROR_INVALID_PARAMETER = -1, /**< A NULL pointer, or text that is not a key. */
    REGDB_ERROR_NO_FILE = -2,           /**< There is no store: nothing was ever written. */
    REGDB_ERROR_NO_KEY = -3,            /**< The store holds no such key. */
    REGDB_ERROR_UNREADABLE = -4,        /**< The store is there but cannot be read. */
    REGDB_ERROR_MALFORMED_FILE = -5,    /**< The store's text is not of the form above. */
    REGDB_ERROR_MALFORMED_VALUE = -6,   /**< The key's text is not an integer that fits an int. */
    REGDB_ERROR_NOT_REGISTERED = -7,    /**< No registration of that key and callback. */
    REGDB_ERROR_OUT_OF_MEMORY = -8,     /**< No memory. */
    REGDB_ERROR_SYSTEM = -9             /**< The system gave no thread or no descriptor. */
};

/** The key a notification is about. Opaque; valid during the callback only. */
struct _keynode_t;  // NOLINT(bugprone-reserved-identifier): the name is the platform's
typedef struct _keynode_t keynode_t;

/**
 * Called after the text of a watched key has changed, or the key has come or gone.
 *
 * Runs on the store's own thread, one call at a time, and needs no main loop of the host. Several
 * changes in quick succession may arrive as one call: read the value, do not count calls. A change
 * that cannot be read (the store malformed or unreadable) counts as the key having gone; one that
 * the process has no descriptor to read is read later. The callback may call any function of the
 * platform, also to register or to remove itself. It must not throw.
 *
 * @param node       The key; belongs to the platform.
 * @param user_data  What was passed at the registration.
 */
typedef void (*regdb_key_changed_cb)(struct _keynode_t* node, void* user_data);

/**
 * Reads a key.
 *
 * @param key    The key; read during the call only.
 * @param value  Receives the stored integer as it is: 0 for off and 1 for on, by convention, but
 *               any other int too. Decimal digits with at most one '-' in front are an integer.
 *               Untouched when the call fails.
 * @return 0, or a code of regdb_error: _INVALID_PARAMETER, _NO_FILE, _NO_KEY, _UNREADABLE,
 *         _MALFORMED_FILE, _MALFORMED_VALUE, _OUT_OF_MEMORY or _SYSTEM.
 */
int regdb_get_bool(const char* key, int* value);

/**
 * Watches a key. The key, the store and the store's folder need not exist yet.
 *
 * Changes made after the call has returned are reported; the state at the time of the call is not.
 * The same callback may be registered several times, also for the same key: each registration is
 * called on its own, in the order of registration.
 *
 * Takes two descriptors. Where the system gives none, or the host closes them, the store is
 * looked at once a second until there are some again, and nothing is lost. A forked child watches
 * nothing of its parent's, and may watch on its own.
 *
 * @param key        The key; copied.
 * @param callback   What to call.
 * @param user_data  Handed to the callback; stays the caller's, and must live until
 *                   regdb_ignore_key_changed() has returned.
 * @return 0, or _INVALID_PARAMETER, _OUT_OF_MEMORY or _SYSTEM of regdb_error; then nothing is
 *         watched.
 */
int regdb_notify_key_changed(const char* key, regdb_key_changed_cb callback, void* user_data);

/**
 * Ends the watching of a key by a callback: all registrations of the two, whatever their user data.
 *
 * When the call has returned, no such callback is running and none will start. Only when it is made
 * from inside a callback does the callback that is running run to its end afterwards.
 * The call therefore waits for a callback that is running: do not make it while
 * holding a lock that the callback takes.
 *
 * @param key       The key.
 * @param callback  The callback that was registered with it.
 * @return 0, or _INVALID_PARAMETER, _NOT_REGISTERED or _OUT_OF_MEMORY of regdb_error.
 */
int regdb_ignore_key_changed(const char* key, regdb_key_changed_cb callback);

#ifdef __cplusplus
}
#endif

#endif  // REGDB_H
