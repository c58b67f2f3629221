// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSCHEMA_H
#define TALLYRA_TYSCHEMA_H

#include "TYDatabase.h"

/// The version of the schema that this build reads and writes.
int SchemaVersion();

/// Brings a database that may be written to the version of this build, one step after the other.
/// @throws CTYDatabaseError  also when the file is another application's or of a later version;
///                           nothing is changed then
void MigrateSchema(CTYDatabase& database);

/// Checks that a database can be read by this build.
/// @throws CTYDatabaseError  when it cannot
void CheckSchema(CTYDatabase& database);

#endif  // TALLYRA_TYSCHEMA_H
