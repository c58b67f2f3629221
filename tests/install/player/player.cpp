// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include <tallyra/ITYDataCollector.h>

#ifdef WITH_PLATFORM
#include <connection.h>
#include <logsvc.h>
#endif

#include <cstdio>
#include <memory>

int main() {
    const std::unique_ptr<ITYDataCollector> collector(
        GetTYDataCollectorInstance("org.example.player", TY_PLAYER_NATIVE));
    int major = 0;
    int minor = 0;
    collector->GetVersion(&major, &minor);
#ifdef WITH_PLATFORM
    bool connected = false;
    connection_profile_check_default_gateway(&connected);
#endif
    std::printf("interface %d.%d\n", major, minor);
}
