// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// CMake builds precompiled headers only for a target that has a source.
