// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "Trial.h"

#include <unistd.h>

namespace {

// A catalogue that cannot be read is not the platform's fault.
constexpr std::initializer_list<int> kNotFound = {APPCAT_ERROR_NOT_FOUND, APPCAT_ERROR_UNREADABLE};
constexpr std::initializer_list<int> kInvalid = {APPCAT_ERROR_INVALID_PARAMETER};
constexpr const char* kUnknown = "org.example.tallyra-check.no-such-application";

const char* Application(CTrial& trial) {
    if (trial.Wanted().application.empty()) {
        trial.NotTried("needs --app, the identifier of an installed application");
    }
    return trial.Wanted().application.c_str();
}

void TryUnknown(CTrial& trial) {
    auto appinfo = Untouched<appcat_appinfo_h>();
    trial.Fail(" for an unknown application", kNotFound,
               trial.Functions().appcat_appinfo_get_usr_appinfo, kUnknown, getuid(), &appinfo);
    trial.Expect(appinfo == Untouched<appcat_appinfo_h>(),
                 "appcat_appinfo_get_usr_appinfo failed and changed the handle");
    auto pkginfo = Untouched<appcat_pkginfo_h>();
    trial.Fail(" for an unknown package", kNotFound, trial.Functions().appcat_pkginfo_get_pkginfo,
               kUnknown, &pkginfo);
    trial.Expect(pkginfo == Untouched<appcat_pkginfo_h>(),
                 "appcat_pkginfo_get_pkginfo failed and changed the handle");
}

void TryNull(CTrial& trial) {
    PlatformFunctions& platform = trial.Functions();
    appcat_appinfo_h appinfo = nullptr;
    appcat_pkginfo_h pkginfo = nullptr;
    char* pText = nullptr;
    const std::string why = " for NULL";
    trial.Fail(why, kInvalid, platform.appcat_appinfo_get_usr_appinfo, nullptr, getuid(), &appinfo);
    trial.Fail(why, kInvalid, platform.appcat_appinfo_get_usr_appinfo, kUnknown, getuid(), nullptr);
    trial.Fail(why, kInvalid, platform.appcat_appinfo_get_pkgid, nullptr, &pText);
    trial.Fail(why, kInvalid, platform.appcat_appinfo_destroy_appinfo, nullptr);
    trial.Fail(why, kInvalid, platform.appcat_pkginfo_get_pkginfo, nullptr, &pkginfo);
    trial.Fail(why, kInvalid, platform.appcat_pkginfo_get_pkginfo, kUnknown, nullptr);
    trial.Fail(why, kInvalid, platform.appcat_pkginfo_get_version, nullptr, &pText);
    trial.Fail(why, kInvalid, platform.appcat_pkginfo_destroy_pkginfo, nullptr);
}

/// An application's package and version, looked up as the library does.
struct LookUp {
    appcat_appinfo_h appinfo = nullptr;
    appcat_pkginfo_h pkginfo = nullptr;
    char* pPackage = nullptr;
    char* pVersion = nullptr;

    LookUp(CTrial& trial, const char* pApplication) {
        PlatformFunctions& platform = trial.Functions();
        trial.Succeed(platform.appcat_appinfo_get_usr_appinfo, pApplication, getuid(), &appinfo);
        trial.Succeed(platform.appcat_appinfo_get_pkgid, appinfo, &pPackage);
        trial.Expect(pPackage != nullptr && *pPackage != '\0', "the package has no identifier");
        trial.Succeed(platform.appcat_pkginfo_get_pkginfo, pPackage, &pkginfo);
        trial.Succeed(platform.appcat_pkginfo_get_version, pkginfo, &pVersion);
        trial.Expect(pVersion != nullptr && *pVersion != '\0', "the package has no version");
    }

    void Destroy(CTrial& trial) const {
        trial.Succeed(trial.Functions().appcat_pkginfo_destroy_pkginfo, pkginfo);
        trial.Succeed(trial.Functions().appcat_appinfo_destroy_appinfo, appinfo);
    }
};

void TryNullString(CTrial& trial) {
    const LookUp found(trial, Application(trial));
    trial.Fail(" for NULL", kInvalid, trial.Functions().appcat_appinfo_get_pkgid, found.appinfo,
               nullptr);
    trial.Fail(" for NULL", kInvalid, trial.Functions().appcat_pkginfo_get_version, found.pkginfo,
               nullptr);
    found.Destroy(trial);
}

void TryChain(CTrial& trial) {
    LookUp(trial, Application(trial)).Destroy(trial);
}

/// A string of a handle, and what it was when it was new.
struct Kept {
    const char* pFunction;
    const char* pText;
    std::string text{pText};

    void ExpectSame(CTrial& trial) const {
        trial.Expect(text == pText, std::string("the string of ") + pFunction + " changed from \"" +
                                        text + "\" to \"" + pText + "\" while its handle existed");
    }
};

// Neither a lookup that fails nor one that succeeds may touch the strings of another handle.
void TryStrings(CTrial& trial) {
    const char* pApplication = Application(trial);
    const LookUp first(trial, pApplication);
    const Kept package{"appcat_appinfo_get_pkgid", first.pPackage};
    const Kept version{"appcat_pkginfo_get_version", first.pVersion};
    appcat_appinfo_h unknown = nullptr;
    trial.Functions().appcat_appinfo_get_usr_appinfo(kUnknown, getuid(), &unknown);
    package.ExpectSame(trial);
    version.ExpectSame(trial);
    LookUp(trial, pApplication).Destroy(trial);
    package.ExpectSame(trial);
    version.ExpectSame(trial);
    first.Destroy(trial);
}

void TryThreads(CTrial& trial) {
    const char* pApplication =
        trial.Wanted().application.empty() ? nullptr : trial.Wanted().application.c_str();
    trial.AtOnce([&] {
        appcat_appinfo_h appinfo = nullptr;
        trial.Fail(" for an unknown application", kNotFound,
                   trial.Functions().appcat_appinfo_get_usr_appinfo, kUnknown, getuid(), &appinfo);
        if (pApplication != nullptr) {
            LookUp(trial, pApplication).Destroy(trial);
        }
    });
}

}  // namespace

std::vector<Check> AppcatChecks() {
    return {
        {"appcat.h", "an unknown application or package is an error and leaves the handle as it is",
         &TryUnknown},
        {"appcat.h", "NULL is an error", &TryNull},
        {"appcat.h", "NULL in place of a string is an error", &TryNullString},
        {"appcat.h",
         "an application leads to its package and its version, and handles can be "
         "destroyed",
         &TryChain},
        {"appcat.h", "strings stay valid until their handle is destroyed", &TryStrings},
        {"appcat.h", "several threads may call at once", &TryThreads},
    };
}
