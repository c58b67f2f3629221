// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYMILLISECONDS_H
#define TALLYRA_GST_TYMILLISECONDS_H

#include <gst/gst.h>

#include <algorithm>
#include <climits>

/// @param time  in nanoseconds
/// @return milliseconds, at least 0; times beyond an int are cut to it
inline int ToMilliseconds(gint64 time) {
    return static_cast<int>(
        std::clamp<gint64>(time / static_cast<gint64>(GST_MSECOND), 0, INT_MAX));
}

#endif  // TALLYRA_GST_TYMILLISECONDS_H
