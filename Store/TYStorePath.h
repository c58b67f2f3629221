// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREPATH_H
#define TALLYRA_TYSTOREPATH_H

#include <string>

/// @return the default store: /var/lib/tallyra/tallyra.db for root, otherwise tallyra/tallyra.db in
///         $XDG_STATE_HOME, which defaults to ~/.local/state
std::string DefaultStorePath();

#endif  // TALLYRA_TYSTOREPATH_H
