// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// libFuzzer provides main and calls the linked target.

#include "Target.h"
