// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_HPP
#define TALLYRA_GST_HPP

#include "tallyra-gst/tallyra-gst.h"

#include <memory>

/// @file
/// Owns a TallyraGstObserver. C++11 or later; tallyra-gst.h documents the functions.

/// What libtallyra-gst offers to C++.
namespace tallyra {

/// Detaches an observer.
struct GstObserverDeleter {
    /// Blocks as tallyra_gst_detach() does. Threads: those of that function.
    /// @param pObserver  freed
    void operator()(TallyraGstObserver* pObserver) const noexcept { tallyra_gst_detach(pObserver); }
};

/// An observer that is detached when this object is destroyed.
using GstObserver = std::unique_ptr<TallyraGstObserver, GstObserverDeleter>;

/// Starts to report what a pipeline plays. Threads: any.
/// @param pPipeline    as in tallyra_gst_attach(); the caller keeps its reference
/// @param application  identifier of the application, copied; null takes the program's name
/// @param player       which player reports, a TY_PLAYER_ID
/// @return the observer, which the caller owns, or null where tallyra_gst_attach() returns NULL
inline GstObserver AttachGstObserver(GstElement* pPipeline, const char* application = nullptr,
                                     int player = 0) {
    TallyraGstOptions options = TallyraGstOptions();
    options.application = application;
    options.player = player;
    return GstObserver(tallyra_gst_attach(pPipeline, &options));
}

}  // namespace tallyra

#endif  // TALLYRA_GST_HPP
