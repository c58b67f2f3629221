// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

// The precompiled headers of the tests belong to a target, and a target has a source.
