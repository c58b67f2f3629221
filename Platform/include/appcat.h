// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef APPCAT_H
#define APPCAT_H

#include <sys/types.h>

/**
 * The platform's catalogue of applications: which package an application comes from, and which
 * version that package has.
 *
 * On the Linux platform the catalogue is the AppStream metadata of the machine, system-wide or the
 * user's own. An application is the component with that identifier; its package is the component's
 * package name, or else its identifier; the version is that of its newest release.
 *
 * Threads: every function may be called from any thread. One handle is used by one thread at a
 * time. All text is UTF-8 and zero-terminated.
 */

#ifdef __cplusplus
extern "C" {
#endif

/** What the functions of this header return. */
enum appcat_error {
    APPCAT_ERROR_NONE = 0,               /**< Success. */
    APPCAT_ERROR_INVALID_PARAMETER = -1, /**< A NULL pointer or an empty identifier. */
    APPCAT_ERROR_NOT_FOUND = -2,         /**< No such application or package. */
    APPCAT_ERROR_NO_VERSION = -3,        /**< The package names no release. */
    APPCAT_ERROR_UNREADABLE = -4,        /**< The catalogue cannot be read. */
    APPCAT_ERROR_OUT_OF_MEMORY = -5      /**< No memory. */
};

/** What is known about an application; freed by appcat_appinfo_destroy_appinfo(). */
typedef struct appcat_appinfo_s* appcat_appinfo_h;

/** What is known about a package; freed by appcat_pkginfo_destroy_pkginfo(). */
typedef struct appcat_pkginfo_s* appcat_pkginfo_h;

/**
 * Looks an application up.
 *
 * @param app_id   The application's identifier, as in "org.example.Player"; one with a "/" in it is
 *                 refused.
 * @param uid      The user whose own catalogue counts besides the machine's, as far as the process
 *                 may read it.
 * @param appinfo  Receives a handle that the caller destroys; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _NOT_FOUND, _UNREADABLE or _OUT_OF_MEMORY of appcat_error.
 */
int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo);

/**
 * Gives the identifier of the package that an application belongs to.
 *
 * @param appinfo  A handle of appcat_appinfo_get_usr_appinfo().
 * @param pkgid    Receives text that belongs to the handle and lives as long as it: do not free or
 *                 write it. Untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER of appcat_error.
 */
int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid);

/**
 * Gives a handle back, and with it the text it gave out.
 *
 * @param appinfo  A handle of appcat_appinfo_get_usr_appinfo(), not used afterwards.
 * @return 0, or _INVALID_PARAMETER of appcat_error for NULL.
 */
int appcat_appinfo_destroy_appinfo(appcat_appinfo_h appinfo);

/**
 * Looks a package up, in the catalogue of the machine and of the user the process runs as.
 *
 * @param pkgid    The package's identifier, as appcat_appinfo_get_pkgid() gives it.
 * @param pkginfo  Receives a handle that the caller destroys; untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER, _NOT_FOUND, _UNREADABLE or _OUT_OF_MEMORY of appcat_error.
 */
int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo);

/**
 * Gives the version of a package, as text: "2.4.1".
 *
 * @param pkginfo  A handle of appcat_pkginfo_get_pkginfo().
 * @param version  Receives text that belongs to the handle and lives as long as it: do not free or
 *                 write it. Untouched when the call fails.
 * @return 0, or _INVALID_PARAMETER or _NO_VERSION of appcat_error.
 */
int appcat_pkginfo_get_version(appcat_pkginfo_h pkginfo, char** version);

/**
 * Gives a handle back, and with it the text it gave out.
 *
 * @param pkginfo  A handle of appcat_pkginfo_get_pkginfo(), not used afterwards.
 * @return 0, or _INVALID_PARAMETER of appcat_error for NULL.
 */
int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo);

#ifdef __cplusplus
}
#endif

#endif  // APPCAT_H
