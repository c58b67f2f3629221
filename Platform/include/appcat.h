// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef APPCAT_H
#define APPCAT_H

#include <sys/types.h>

/**
 * @file
 * The platform's catalogue of applications: it names the package of an application, and the version
 * of that package.
 *
 * On the Linux platform the catalogue is the AppStream metadata of the system and of the user. An
 * application is the component with that identifier. Its package is the component's package name,
 * or the identifier if the component has no package name. The version is that of the newest
 * release.
 *
 * Threads: every function may be called from any thread, and several threads may call at the same
 * time. Only one thread at a time may use a handle. All strings are UTF-8 and zero-terminated.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** Return values of the functions of this header. */
enum appcat_error {
    APPCAT_ERROR_NONE = 0,               /**< Success. */
    APPCAT_ERROR_INVALID_PARAMETER = -1, /**< A NULL pointer or an empty identifier. */
    APPCAT_ERROR_NOT_FOUND = -2,         /**< No such application or package. */
    APPCAT_ERROR_NO_VERSION = -3,        /**< The package has no release. */
    APPCAT_ERROR_UNREADABLE = -4,        /**< The catalogue cannot be read. */
    APPCAT_ERROR_OUT_OF_MEMORY = -5      /**< Allocation failed. */
};

/** An application of the catalogue. Free it with appcat_appinfo_destroy_appinfo(). */
typedef struct appcat_appinfo_s* appcat_appinfo_h;

/** A package of the catalogue. Free it with appcat_pkginfo_destroy_pkginfo(). */
typedef struct appcat_pkginfo_s* appcat_pkginfo_h;

/**
 * Looks up an application. Threads: any.
 *
 * @param app_id   The application's identifier, for example "org.example.Player". Not kept. An
 *                 identifier with a "/" is invalid.
 * @param uid      The user whose own catalogue is searched before the system's. Files that the
 *                 process may not read are skipped.
 * @param appinfo  Receives a handle that the caller destroys. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER, _NOT_FOUND, _UNREADABLE or _OUT_OF_MEMORY of appcat_error.
 */
int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo);

/**
 * Gets the identifier of the package that contains an application. Threads: any, one at a time for
 * a handle.
 *
 * @param appinfo  A handle from appcat_appinfo_get_usr_appinfo().
 * @param pkgid    Receives a string that the handle owns. Valid until the handle is destroyed; do
 *                 not free or modify it. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER of appcat_error.
 */
int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid);

/**
 * Destroys a handle and the strings it owns. Threads: any, while no other uses the handle.
 *
 * @param appinfo  A handle from appcat_appinfo_get_usr_appinfo(). Do not use it afterwards.
 * @return 0, or _INVALID_PARAMETER of appcat_error for NULL.
 */
int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo);

/**
 * Looks up a package in the catalogues of the system and of the user that the process runs as.
 * Threads: any.
 *
 * @param pkgid    The package's identifier, from appcat_appinfo_get_pkgid(). Not kept.
 * @param pkginfo  Receives a handle that the caller destroys. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER, _NOT_FOUND, _UNREADABLE or _OUT_OF_MEMORY of appcat_error.
 */
int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo);

/**
 * Gets the version of a package, for example "2.4.1". Threads: any, one at a time for a handle.
 *
 * @param pkginfo  A handle from appcat_pkginfo_get_pkginfo().
 * @param version  Receives a string that the handle owns. Valid until the handle is destroyed; do
 *                 not free or modify it. Unchanged on failure.
 * @return 0, or _INVALID_PARAMETER or _NO_VERSION of appcat_error.
 */
int appcat_pkginfo_get_version(appcat_pkginfo_h pkginfo, char** version);

/**
 * Destroys a handle and the strings it owns. Threads: any, while no other uses the handle.
 *
 * @param pkginfo  A handle from appcat_pkginfo_get_pkginfo(). Do not use it afterwards.
 * @return 0, or _INVALID_PARAMETER of appcat_error for NULL.
 */
int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo);

#ifdef __cplusplus
}
#endif

#endif  // APPCAT_H
