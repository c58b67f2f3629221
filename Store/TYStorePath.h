// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREPATH_H
#define TALLYRA_TYSTOREPATH_H

#include <string>
#include <vector>

/// @return the default store: /var/lib/tallyra/tallyra.db for root, otherwise tallyra/tallyra.db in
///         $XDG_STATE_HOME, which defaults to ~/.local/state
std::string DefaultStorePath();

/// @return where a reader looks for a store, in this order: $TALLYRA_DB alone if it is set,
///         otherwise the default store and that of the system's service
std::vector<std::string> StorePathsToRead();

/// @param paths  at least one
/// @return the first path that leads to a file, or into a folder that this user may not search; the
///         first path if none does
std::string ChooseStore(const std::vector<std::string>& paths);

/// Follows symbolic links as SQLite does: it puts the log of a database beside the file that a link
/// leads to, not beside the link.
/// @return the path that a path leads to; there need not be a file
std::string FollowLinks(const std::string& path);

/// @return whether the name of a database is the URL of a PostgreSQL server: postgresql://...
bool IsServerUrl(const std::string& db);

#endif  // TALLYRA_TYSTOREPATH_H
