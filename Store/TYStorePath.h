// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREPATH_H
#define TALLYRA_TYSTOREPATH_H

#include <string>

/// @return the default store: /var/lib/tallyra/tallyra.db for root, otherwise tallyra/tallyra.db in
///         $XDG_STATE_HOME, which defaults to ~/.local/state
std::string DefaultStorePath();

/// Follows symbolic links as SQLite does: it puts the log of a database beside the file that a link
/// leads to, not beside the link.
/// @return the path that a path leads to; there need not be a file
std::string FollowLinks(const std::string& path);

#endif  // TALLYRA_TYSTOREPATH_H
