// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREPATH_H
#define TALLYRA_TYSTOREPATH_H

#include <string>

/// @return where the records are unless told otherwise: /var/lib/tallyra/tallyra.db for root, else
///         tallyra/tallyra.db in $XDG_STATE_HOME or in ~/.local/state
std::string DefaultStorePath();

#endif  // TALLYRA_TYSTOREPATH_H
