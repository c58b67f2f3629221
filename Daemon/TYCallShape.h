// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCALLSHAPE_H
#define TALLYRA_TYCALLSHAPE_H

#include "TYMessageReader.h"

#include <cstddef>
#include <string>

/// What a call carries, as far as it can be told before the call is parsed. Enough to decide
/// whether to serve the call, and to count its records if it is not served.
struct TYCallShape {
    bool isBatch = false;     ///< its function is SendData
    std::size_t records = 0;  ///< arrays of bytes, of any size
    std::size_t bytes = 0;    ///< of the body
    std::string application;  ///< of the first record; empty if it is unknown
};

/// Reads the shape of a call.
///
/// Threads: any.
TYCallShape ShapeOf(const TYArrival& arrival);

/// @return whether the body is a sequence of values, each with the payload of its type
///
/// Threads: any; the message must not be used by two threads at once.
bool IsWellFormed(DBusMessage* pCall);

#endif  // TALLYRA_TYCALLSHAPE_H
