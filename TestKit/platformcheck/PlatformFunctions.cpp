// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "PlatformFunctions.h"

#include <dlfcn.h>

#include <filesystem>

namespace {

// The loader looks for a name without a slash in the system's folders only.
std::string PathOf(const std::string& library) {
    std::error_code ignored;
    return std::filesystem::exists(library, ignored) ? std::filesystem::absolute(library).string()
                                                     : library;
}

void* FindIn(const std::vector<void*>& libraries, const char* pName) {
    for (void* pLibrary : libraries) {
        if (void* pSymbol = dlsym(pLibrary, pName)) {
            return pSymbol;
        }
    }
    return nullptr;
}

std::vector<void*> Open(CProgress& progress, const std::vector<std::string>& libraries) {
    std::vector<void*> opened;
    for (const std::string& library : libraries) {
        const CProgress::CMark mark(progress, "dlopen");
        opened.push_back(dlopen(PathOf(library).c_str(), RTLD_NOW | RTLD_GLOBAL));
        if (opened.back() == nullptr) {
            progress.End(Verdict::BROKEN, dlerror());
        }
    }
    return opened;
}

}  // namespace

void PlatformFunctions::Load(CProgress& progress, const std::vector<std::string>& libraries) {
    const std::vector<void*> opened = Open(progress, libraries);
#define TALLYRA_FIND(name) name.Find(progress, FindIn(opened, #name));
    TALLYRA_LOGSVC_FUNCTIONS(TALLYRA_FIND)
    TALLYRA_REGDB_FUNCTIONS(TALLYRA_FIND)
    TALLYRA_APPCAT_FUNCTIONS(TALLYRA_FIND)
    TALLYRA_CONNECTION_FUNCTIONS(TALLYRA_FIND)
    TALLYRA_WIFI_FUNCTIONS(TALLYRA_FIND)
#undef TALLYRA_FIND
}
