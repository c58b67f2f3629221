// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// libFuzzer has the main function; the target is linked beside it.

#include "Target.h"
