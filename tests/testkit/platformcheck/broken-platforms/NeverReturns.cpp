// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Waits forever for the answer of a catalogue that does not know the package.

#include "Next.h"

#include "appcat.h"

#include <unistd.h>

int appcat_pkginfo_get_pkginfo(const char* pkgid, appcat_pkginfo_h* pkginfo) {
    const int result = NEXT(appcat_pkginfo_get_pkginfo)(pkgid, pkginfo);
    while (result == APPCAT_ERROR_NOT_FOUND) {
        pause();
    }
    return result;
}
