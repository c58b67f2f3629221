// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYSTOREERRORS_H
#define TALLYRA_TYSTOREERRORS_H

#include "TYDatabase.h"

// The kinds of errors that a keeper treats differently, see TYStoreKeeper.cpp.

inline bool IsDamage(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CORRUPT || error.Kind() == SQLITE_NOTADB;
}

/// What an intact store never causes. It may come from a damaged index, or from a mistake in the
/// service, which must not make it set an intact store aside.
inline bool IsSuspicious(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_CONSTRAINT || error.Kind() == SQLITE_ERROR ||
           error.Kind() == SQLITE_MISMATCH;
}

/// Errors that concern only the operation: the file stays open.
inline bool IsTransient(const CTYDatabaseError& error) {
    return error.Kind() == SQLITE_FULL || error.Kind() == SQLITE_BUSY ||
           error.Kind() == SQLITE_LOCKED || error.Kind() == SQLITE_NOMEM;
}

#endif  // TALLYRA_TYSTOREERRORS_H
