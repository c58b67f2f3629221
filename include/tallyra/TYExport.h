// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYEXPORT_H
#define TALLYRA_TYEXPORT_H

/// @file
/// The mark of exported symbols.

/// Marks a class or function that `libtallyra.so` exports. The library exports a symbol only if it
/// has this mark and the linker's symbol map lists it.
#define TALLYRA_EXPORT __attribute__((visibility("default")))

#endif  // TALLYRA_TYEXPORT_H
