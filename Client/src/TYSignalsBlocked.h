// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSIGNALSBLOCKED_H
#define TALLYRA_TYSIGNALSBLOCKED_H

#include "SignalsBlocked.h"

using CTYSignalsBlocked = CSignalsBlocked;

#endif  // TALLYRA_TYSIGNALSBLOCKED_H
