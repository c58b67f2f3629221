// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYEXPORT_H
#define TALLYRA_TYEXPORT_H

/// Marks what leaves `libtallyra.so`. The symbol map names each of these once more; a symbol has
/// to be in both to be exported.
#define TALLYRA_EXPORT __attribute__((visibility("default")))

#endif  // TALLYRA_TYEXPORT_H
