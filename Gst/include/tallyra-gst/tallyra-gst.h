// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_GST_H
#define TALLYRA_GST_H

#include <gst/gst.h>

/**
 * SECTION:tallyra-gst
 * @title: TallyraGstObserver
 * @short_description: reports what a GStreamer pipeline plays
 *
 * An observer is attached to one pipeline, usually a playbin or playbin3, and reports each of its
 * playbacks: start, first frame, stalls, pauses, seeks, renditions, dropped frames, errors and end.
 * It takes nothing from the application: it uses neither the one sync handler of the bus nor its
 * queue, and needs no main loop. docs/gstreamer.md lists what each report is made from.
 *
 * |[<!-- language="C" -->
 * GstElement *pipeline = gst_element_factory_make ("playbin3", NULL);
 * TallyraGstObserver *observer = tallyra_gst_attach (pipeline, NULL);
 * // set the URI, play, stop
 * gst_object_unref (pipeline);
 * tallyra_gst_detach (observer);
 * ]|
 *
 * Threads: each function may be called from any thread, and all but tallyra_gst_detach(), which may
 * block, from a handler of a pipeline's signal. The observer has one thread of its own, which makes
 * all reports, and those of its collector. It may release the last reference to the pipeline.
 *
 * Fork: in a forked child, the observers of the parent do nothing.
 */

G_BEGIN_DECLS

/**
 * TallyraGstObserver:
 *
 * Opaque. Made by tallyra_gst_attach(), freed by tallyra_gst_detach().
 */
typedef struct _TallyraGstObserver TallyraGstObserver;

/**
 * TallyraGstOptions:
 * @application: (nullable): identifier of the application; records carry its first 49 bytes. %NULL
 *   takes g_get_prgname(), or "unknown" if that is not set.
 * @player: which player reports, 0 to 255: a TY_PLAYER_ID, or a value that the platform integrator
 *   assigned
 *
 * Set all other members to 0, as an initializer does.
 */
typedef struct {
    const gchar* application;
    gint player;

    /*< private >*/
    gpointer _reserved[GST_PADDING];
} TallyraGstOptions;

/**
 * TALLYRA_GST_UNKNOWN:
 *
 * In #TallyraGstContent: take the value from the stream.
 */
#define TALLYRA_GST_UNKNOWN (-1)

/**
 * TallyraGstContent:
 * @uri: (nullable): which content is described: the pipeline's `uri`, escaped or not. %NULL is the
 *   content that plays now, or else the next one to start.
 * @title: (nullable): title as shown to viewers; %NULL takes the stream's title tag, and until that
 *   arrives the last part of the URI's path
 * @channel: (nullable): identifier of the channel
 * @genre: (nullable): %NULL takes the stream's genre tag
 * @custom_info: (nullable): text of the application's choice
 * @content_type: a TY_CONTENT_TYPE; #TALLYRA_GST_UNKNOWN takes live or video on demand, as the
 *   pipeline says
 * @drm_type: a TY_DRM_TYPE; #TALLYRA_GST_UNKNOWN takes it from the stream's protection events
 * @duration: in milliseconds; #TALLYRA_GST_UNKNOWN asks the pipeline
 *
 * What the stream does not tell, or tells wrongly. Initialize it with #TALLYRA_GST_CONTENT_INIT.
 */
typedef struct {
    const gchar* uri;
    const gchar* title;
    const gchar* channel;
    const gchar* genre;
    const gchar* custom_info;
    gint content_type;
    gint drm_type;
    gint duration;

    /*< private >*/
    gpointer _reserved[GST_PADDING];
} TallyraGstContent;

#define TALLYRA_GST_CONTENT_INIT                                                \
    {                                                                           \
        NULL, NULL, NULL, NULL, NULL, TALLYRA_GST_UNKNOWN, TALLYRA_GST_UNKNOWN, \
            TALLYRA_GST_UNKNOWN, {                                              \
            NULL, NULL, NULL, NULL                                              \
        }                                                                       \
    }

/**
 * tallyra_gst_attach:
 * @pipeline: (transfer none): a #GstPipeline in any state; playbin and playbin3 are two
 * @options: (nullable): copied before the call returns; %NULL takes the defaults
 *
 * Starts to report what @pipeline plays. Attach before the pipeline leaves %GST_STATE_READY;
 * otherwise the playback in progress is reported from now on and has no start-up time.
 *
 * The observer holds no reference to @pipeline. A disposed pipeline ends its playback.
 *
 * Returns: (transfer full) (nullable): the observer; %NULL if @pipeline is no #GstPipeline, has no
 *   bus or is observed already, or if no thread can be started. Every function takes %NULL and does
 *   nothing.
 */
TallyraGstObserver* tallyra_gst_attach(GstElement* pipeline, const TallyraGstOptions* options);

/**
 * tallyra_gst_describe:
 * @observer: (nullable): the observer
 * @content: copied before the call returns
 *
 * Describes content that the stream does not describe. Call it before the content starts, or during
 * it. During a playback, a new description replaces the earlier one. The description is forgotten
 * when its playback ends.
 */
void tallyra_gst_describe(TallyraGstObserver* observer, const TallyraGstContent* content);

/**
 * tallyra_gst_detach:
 * @observer: (transfer full) (nullable): the observer
 *
 * Ends a playback that is in progress, with the reason "application closed", sends what is left and
 * frees @observer. During a playback, blocks for a quarter of a second, by which reports are late.
 * Then blocks as the destructor of ITYDataCollector does: at most about 4 s if the collection
 * service does not answer. Blocks 10 s at most, also if the pipeline does not answer. Do not call
 * it from a handler of the pipeline's signals or messages. It may be the destroy notification of an
 * object: the observer's own thread, which may release the last reference to @pipeline, does not
 * wait for itself.
 *
 * If an application exits without this call, its playback has no STOP, and the last quarter of a
 * second is lost.
 */
void tallyra_gst_detach(TallyraGstObserver* observer);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(TallyraGstObserver, tallyra_gst_detach)

G_END_DECLS

#endif /* TALLYRA_GST_H */
