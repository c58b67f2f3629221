// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYStorePath.h"

#include <unistd.h>

#include <cstdlib>

std::string DefaultStorePath() {
    if (geteuid() == 0) {
        return "/var/lib/tallyra/tallyra.db";
    }
    const char* pState = std::getenv("XDG_STATE_HOME");
    const char* pHome = std::getenv("HOME");
    const std::string state = pState != nullptr && *pState == '/'
                                  ? std::string(pState)
                                  : std::string(pHome != nullptr ? pHome : "") + "/.local/state";
    return state + "/tallyra/tallyra.db";
}
