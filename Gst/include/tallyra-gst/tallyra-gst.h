// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_H
#define TALLYRA_GST_H

#include <gst/gst.h>

/**
 * @file
 * Reports what a GStreamer pipeline plays.
 *
 * An observer is attached to one pipeline, usually a playbin or playbin3, and reports each of its
 * playbacks: start, first frame, stalls, pauses, seeks, renditions, dropped frames, errors and end.
 * It takes nothing from the application: it uses neither the one sync handler of the bus nor its
 * queue, and needs no main loop. docs/gstreamer.md lists what each report is made from.
 *
 * ```c
 * GstElement *pipeline = gst_element_factory_make ("playbin3", NULL);
 * TallyraGstObserver *observer = tallyra_gst_attach (pipeline, NULL);
 * // set the URI, play, stop
 * gst_object_unref (pipeline);
 * tallyra_gst_detach (observer);
 * ```
 *
 * Threads: each function may be called from any thread, and several threads may call at the same
 * time. All but tallyra_gst_detach(), which may block, may be called from a handler of a pipeline's
 * signal. The observer has one thread of its own, which makes
 * all reports, and those of its collector. It may release the last reference to the pipeline.
 *
 * Fork: in a forked child, the observers of the parent do nothing.
 */

G_BEGIN_DECLS

/** An observer of one pipeline. Made by tallyra_gst_attach(), freed by tallyra_gst_detach(). */
typedef struct _TallyraGstObserver TallyraGstObserver;

/**
 * How an observer reports. Set the members that are not described to 0, as an initializer does.
 *
 * Ownership: the application keeps its texts; tallyra_gst_attach() copies them.
 */
typedef struct {
    /** Identifier of the application; records carry its first 49 bytes. NULL takes
     *  g_get_prgname(), or "unknown" if that is not set. */
    const gchar* application;
    /** Which player reports, 0 to 255: a TY_PLAYER_ID, or a value that the platform integrator
     *  assigned. */
    gint player;

    /** @private 0. */
    gpointer _reserved[GST_PADDING];
} TallyraGstOptions;

/** In TallyraGstContent: take the value from the stream. */
#define TALLYRA_GST_UNKNOWN (-1)

/**
 * What the stream does not tell, or tells wrongly. Initialize it with TALLYRA_GST_CONTENT_INIT.
 *
 * Ownership: the application keeps its texts; tallyra_gst_describe() copies them.
 */
typedef struct {
    /** Which content is described: the pipeline's `uri`, escaped or not. NULL is the content that
     *  plays now, or else the next one to start. */
    const gchar* uri;
    /** Title as shown to viewers. NULL takes the stream's title tag, and until that arrives the
     *  last part of the URI's path. */
    const gchar* title;
    /** Identifier of the channel, or NULL. */
    const gchar* channel;
    /** The genre. NULL takes the stream's genre tag. */
    const gchar* genre;
    /** Text of the application's choice, or NULL. */
    const gchar* custom_info;
    /** A TY_CONTENT_TYPE. TALLYRA_GST_UNKNOWN takes live or video on demand, as the pipeline
     *  says. */
    gint content_type;
    /** A TY_DRM_TYPE. TALLYRA_GST_UNKNOWN takes it from the stream's protection events. */
    gint drm_type;
    /** Length in milliseconds. TALLYRA_GST_UNKNOWN asks the pipeline. */
    gint duration;

    /** @private 0. */
    gpointer _reserved[GST_PADDING];
} TallyraGstContent;

/** A TallyraGstContent that takes everything from the stream. */
#define TALLYRA_GST_CONTENT_INIT                                                \
    {                                                                           \
        NULL, NULL, NULL, NULL, NULL, TALLYRA_GST_UNKNOWN, TALLYRA_GST_UNKNOWN, \
            TALLYRA_GST_UNKNOWN, {                                              \
            NULL, NULL, NULL, NULL                                              \
        }                                                                       \
    }

/**
 * Starts to report what a pipeline plays. Attach before the pipeline leaves GST_STATE_READY;
 * otherwise the playback in progress is reported from now on and has no start-up time.
 *
 * Threads: any, also a handler of a pipeline's signal. Does not block.
 *
 * @param pipeline  A GstPipeline in any state; playbin and playbin3 are two. The caller keeps its
 *                  reference, and the observer takes none. A disposed pipeline ends its playback.
 * @param options   Copied before the call returns. NULL takes the defaults.
 * @return The observer, which the caller owns and frees with tallyra_gst_detach(). NULL if
 *         `pipeline` is no GstPipeline, which GLib also logs as critical, has no bus or is observed
 *         already, or if no thread can be started. The other functions take NULL and do nothing.
 */
TallyraGstObserver* tallyra_gst_attach(GstElement* pipeline, const TallyraGstOptions* options);

/**
 * Describes content that the stream does not describe. Call it before the content starts, or during
 * it. During a playback, a new description replaces the earlier one. The description is forgotten
 * when its playback ends.
 *
 * Threads: any, also a handler of a pipeline's signal. Does not block.
 *
 * @param observer  The caller's observer, or NULL.
 * @param content   Copied before the call returns. NULL is ignored.
 */
void tallyra_gst_describe(TallyraGstObserver* observer, const TallyraGstContent* content);

/**
 * Ends a playback that is in progress, with the reason "application closed", sends what is left and
 * frees the observer. During a playback, blocks for a quarter of a second, by which reports are
 * late. Then blocks as the destructor of ITYDataCollector does: at most about 4 s if the collection
 * service does not answer. Blocks 10 s at most, also if the pipeline does not answer.
 *
 * Threads: any, once no other call with this observer is in progress, but not from a handler of the
 * pipeline's signals or messages. It may be the destroy notification of an object: the observer's
 * own thread, which may release the last reference to the pipeline, does not wait for itself.
 *
 * If an application exits without this call, its playback has no STOP, and the last quarter of a
 * second is lost.
 *
 * @param observer  The observer, which must not be used afterwards, or NULL.
 */
void tallyra_gst_detach(TallyraGstObserver* observer);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(TallyraGstObserver, tallyra_gst_detach)

G_END_DECLS

#endif /* TALLYRA_GST_H */
