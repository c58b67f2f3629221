// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPOSTGRESSCHEMA_H
#define TALLYRA_TYPOSTGRESSCHEMA_H

#include <pqxx/pqxx>

/// Numbers of the advisory locks. Each is taken in the space of kAdvisorySpace.
enum class TYAdvisoryLock { SCHEMA = 1, PARTITIONS = 2 };
inline constexpr int kAdvisorySpace = 0x54594c41;

/// Makes the tables or upgrades them. Other collectors wait until it is done.
/// @throws std::runtime_error  if the tables are those of a newer version
void MigratePostgresSchema(pqxx::connection& connection);

/// @throws std::runtime_error  if there are no tables, or those of another version
void CheckPostgresSchema(pqxx::transaction_base& transaction);

#endif  // TALLYRA_TYPOSTGRESSCHEMA_H
