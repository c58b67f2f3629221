// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// Keeps a package's identifier in one place for all handles of a thread.

#include "Next.h"

#include "appcat.h"

#include <string>

namespace {

std::string& Shared() {
    thread_local std::string text;
    return text;
}

}  // namespace

int appcat_appinfo_get_usr_appinfo(const char* app_id, uid_t uid, appcat_appinfo_h* appinfo) {
    if (!Shared().empty()) {
        Shared().assign(Shared().size(), '?');
    }
    return NEXT(appcat_appinfo_get_usr_appinfo)(app_id, uid, appinfo);
}

int appcat_appinfo_get_pkgid(appcat_appinfo_h appinfo, char** pkgid) {
    const int result = NEXT(appcat_appinfo_get_pkgid)(appinfo, pkgid);
    if (result == 0) {
        // Assigning keeps the memory if the text has the same length.
        Shared().resize(std::string(*pkgid).size());
        *pkgid = Shared().assign(*pkgid).data();
    }
    return result;
}
