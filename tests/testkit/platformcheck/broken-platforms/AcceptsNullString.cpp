// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Says that it has stored a string, although there is no place for it.

#include "Next.h"

#include "appcat.h"

int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid) {
    if (appinfo != nullptr && pkgid == nullptr) {
        return APPCAT_ERROR_NONE;
    }
    return NEXT(appcat_appinfo_get_pkgid)(appinfo, pkgid);
}
