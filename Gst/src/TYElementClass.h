// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYELEMENTCLASS_H
#define TALLYRA_GST_TYELEMENTCLASS_H

#include <gst/gst.h>

#include <cstring>

/// @return whether the class of an element, such as "Codec/Decoder/Video", has this part
inline bool HasClass(GstElement* pElement, const char* pPart) {
    const char* pClass =
        gst_element_class_get_metadata(GST_ELEMENT_GET_CLASS(pElement), GST_ELEMENT_METADATA_KLASS);
    return pClass != nullptr && std::strstr(pClass, pPart) != nullptr;
}

/// @return whether an element is a demuxer that loads the segments of a manifest
inline bool IsAdaptive(GstElement* pElement) {
    return HasClass(pElement, "Demuxer") && HasClass(pElement, "Adaptive");
}

#endif  // TALLYRA_GST_TYELEMENTCLASS_H
