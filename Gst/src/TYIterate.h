// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYITERATE_H
#define TALLYRA_GST_TYITERATE_H

#include <gst/gst.h>

#include <memory>

struct TYUnref {
    void operator()(gpointer pObject) const { gst_object_unref(pObject); }
};

/// Calls `work` for each element or pad of an iterator, which it frees. The frames between are C++,
/// so `work` may throw. If the pipeline changes meanwhile, an object may come twice.
template <class Work>
void Iterate(GstIterator* pIterator, const Work& work) {
    const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> pOwned(pIterator,
                                                                            gst_iterator_free);
    for (;;) {
        GValue value = G_VALUE_INIT;
        switch (gst_iterator_next(pIterator, &value)) {
            case GST_ITERATOR_OK: {
                const std::unique_ptr<GstObject, TYUnref> pObject(
                    GST_OBJECT(g_value_dup_object(&value)));
                g_value_unset(&value);
                work(pObject.get());
                break;
            }
            case GST_ITERATOR_RESYNC:
                gst_iterator_resync(pIterator);
                break;
            default:
                return;
        }
    }
}

#endif  // TALLYRA_GST_TYITERATE_H
