// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_HPP
#define TALLYRA_GST_HPP

#include "tallyra-gst/tallyra-gst.h"

#include <memory>

/// @file
/// Owns a TallyraGstObserver. C++11 or later; tallyra-gst.h documents the functions.

namespace tallyra {

/// Detaches an observer.
struct GstObserverDeleter {
    /// @param pObserver  blocks as tallyra_gst_detach() does
    void operator()(TallyraGstObserver* pObserver) const noexcept { tallyra_gst_detach(pObserver); }
};

/// An observer that is detached when this object is destroyed.
using GstObserver = std::unique_ptr<TallyraGstObserver, GstObserverDeleter>;

/// @param pPipeline    as in tallyra_gst_attach()
/// @param application  identifier of the application; null takes the program's name
/// @param player       which player reports, a TY_PLAYER_ID
/// @return the observer, or null where tallyra_gst_attach() returns NULL
inline GstObserver AttachGstObserver(GstElement* pPipeline, const char* application = nullptr,
                                     int player = 0) {
    TallyraGstOptions options = TallyraGstOptions();
    options.application = application;
    options.player = player;
    return GstObserver(tallyra_gst_attach(pPipeline, &options));
}

}  // namespace tallyra

#endif  // TALLYRA_GST_HPP
