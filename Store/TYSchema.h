// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSCHEMA_H
#define TALLYRA_TYSCHEMA_H

#include "TYDatabase.h"

#include <functional>

/// @return the application id that marks a file as a store of this service: bytes 68 to 71
std::int64_t ApplicationId();

/// @return the schema version that this build reads and writes
int SchemaVersion();

/// Called before the schema of an existing store is upgraded, which may take long.
using TYBeforeUpgrade = std::function<void(int version)>;

/// Upgrades a database to this build's schema version in one transaction. Creates the schema in an
/// empty file.
/// @throws CTYDatabaseError  if the file belongs to another application or has a newer version; the
///                           file is then unchanged
void MigrateSchema(CTYDatabase& database, const TYBeforeUpgrade& beforeUpgrade = {});

/// Checks that this build can read a database.
/// @throws CTYDatabaseError  if it cannot
void CheckSchema(CTYDatabase& database);

#endif  // TALLYRA_TYSCHEMA_H
