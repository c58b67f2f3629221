// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYMETERED_H
#define TALLYRA_TYMETERED_H

/// @return whether the network costs by volume, as NetworkManager says; false without it
///
/// Threads: the main thread only.
bool IsNetworkMetered();

#endif  // TALLYRA_TYMETERED_H
