// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The program "tallyra-testservice".

#include "Session.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv) {
    try {
        int status = 0;
        const auto options = ParseOptions(argc, argv, status);
        return options ? CSession(*options).Run() : status;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "tallyra-testservice: %s\n", error.what());
        return kExitFailed;
    }
}
