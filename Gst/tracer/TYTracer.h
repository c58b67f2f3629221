// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_TYTRACER_H
#define TALLYRA_GST_TYTRACER_H

// GStreamer's tracer API is marked unstable.
#define GST_USE_UNSTABLE_API
#include <gst/gst.h>
#include <gst/gsttracer.h>

G_BEGIN_DECLS

/// The tracer `tallyra`: observes each playbin and playbin3 of a process from its first change of
/// state on, without the application's help.
///
/// Parameters, all optional: application, a text; player, an int. Both are those of
/// TallyraGstOptions.
///
/// Threads: GStreamer calls its hook on any thread, several at the same time.
G_DECLARE_FINAL_TYPE(TYTracer, ty_tracer, TY, TRACER, GstTracer)

G_END_DECLS

#endif  // TALLYRA_GST_TYTRACER_H
