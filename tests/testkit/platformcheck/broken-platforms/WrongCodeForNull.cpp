// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Says that NULL is no package of the catalogue.

#include "Next.h"

#include "appcat.h"

int appcat_pkginfo_destroy_pkginfo(appcat_pkginfo_h pkginfo) {
    const int result = NEXT(appcat_pkginfo_destroy_pkginfo)(pkginfo);
    return result == APPCAT_ERROR_INVALID_PARAMETER ? APPCAT_ERROR_NOT_FOUND : result;
}
