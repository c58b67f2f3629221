// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTKIT_PLATFORMHEADERS_H
#define TALLYRA_TESTKIT_PLATFORMHEADERS_H

// All that this library exports. Everything else in it is hidden, and the map lists each name.

#include <sys/types.h>

#pragma GCC visibility push(default)
#include "tallyra-testkit/testplatform.h"

#include "appcat.h"
#include "connection.h"
#include "logsvc.h"
#include "regdb.h"
#include "wifi_manager.h"
#pragma GCC visibility pop

#endif  // TALLYRA_TESTKIT_PLATFORMHEADERS_H
