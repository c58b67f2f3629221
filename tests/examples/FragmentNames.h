// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TESTS_FRAGMENTNAMES_H
#define TALLYRA_TESTS_FRAGMENTNAMES_H

/// @file
/// What fragments of code in documents use without declaring it. In C and C++.

#if __has_include(<gst/gst.h>)
#include "tallyra-gst/tallyra-gst.h"

extern GstElement* playbin;
extern TallyraGstObserver* observer;
#endif

#ifdef __cplusplus
#include "tallyra/ITYDataCollector.h"

extern ITYDataCollector* collector;
extern CTYContentInfo content;
#endif

#endif  // TALLYRA_TESTS_FRAGMENTNAMES_H
