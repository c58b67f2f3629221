// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

/*
 * A small player that reports its playbacks: plays URIs one after the other without a gap, pauses
 * while it buffers, and seeks. Three lines are the observer's: they are marked.
 *
 * Usage: tallyra-gst-player [--fake] URI...
 *   --fake  play in real time without window and sound
 *
 * Keys, each followed by Enter: p pauses and continues, f seeks 10 s ahead, q ends.
 */

#include <tallyra-gst/tallyra-gst.h>

typedef struct {
    GMainLoop* loop;
    GstElement* playbin;
    gchar** next_uri;   /* written before playing, then by the thread of about-to-finish */
    gboolean is_paused; /* by the viewer */
    gboolean is_buffering;
    int status;
} Player;

static void update_state(Player* player) {
    gboolean plays = !player->is_paused && !player->is_buffering;

    gst_element_set_state(player->playbin, plays ? GST_STATE_PLAYING : GST_STATE_PAUSED);
}

static void seek_ahead(Player* player) {
    gint64 position = 0;

    if (gst_element_query_position(player->playbin, GST_FORMAT_TIME, &position))
        gst_element_seek_simple(player->playbin, GST_FORMAT_TIME,
                                GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT,
                                position + 10 * GST_SECOND);
}

/* Called on a streaming thread. */
static void on_about_to_finish(GstElement* playbin, Player* player) {
    if (*player->next_uri)
        g_object_set(playbin, "uri", *player->next_uri++, NULL);
}

/* While the buffer fills, the player pauses: the network is slower than the content. */
static void on_buffering(Player* player, GstMessage* message) {
    gint percent = 0;

    gst_message_parse_buffering(message, &percent);
    if (player->is_buffering != (percent < 100)) {
        player->is_buffering = percent < 100;
        update_state(player);
    }
}

static void on_error(Player* player, GstMessage* message) {
    GError* error = NULL;

    gst_message_parse_error(message, &error, NULL);
    g_printerr("%s\n", error->message);
    g_error_free(error);
    player->status = 1;
    g_main_loop_quit(player->loop);
}

static gboolean on_message(GstBus* bus, GstMessage* message, gpointer data) {
    Player* player = data;

    (void)bus;
    switch (GST_MESSAGE_TYPE(message)) {
        case GST_MESSAGE_ERROR:
            on_error(player, message);
            break;
        case GST_MESSAGE_EOS:
            g_main_loop_quit(player->loop);
            break;
        case GST_MESSAGE_BUFFERING:
            on_buffering(player, message);
            break;
        default:
            break;
    }
    return G_SOURCE_CONTINUE;
}

static gboolean on_key(GIOChannel* channel, GIOCondition condition, gpointer data) {
    Player* player = data;
    gchar* line = NULL;

    (void)condition;
    if (g_io_channel_read_line(channel, &line, NULL, NULL, NULL) != G_IO_STATUS_NORMAL)
        return G_SOURCE_REMOVE;
    if (line[0] == 'p') {
        player->is_paused = !player->is_paused;
        update_state(player);
    } else if (line[0] == 'f') {
        seek_ahead(player);
    } else if (line[0] == 'q') {
        g_main_loop_quit(player->loop);
    }
    g_free(line);
    return G_SOURCE_CONTINUE;
}

static void use_fake_sinks(GstElement* playbin) {
    GstElement* video = gst_element_factory_make("fakesink", NULL);
    GstElement* audio = gst_element_factory_make("fakesink", NULL);

    g_object_set(video, "sync", TRUE, "qos", TRUE, NULL);
    g_object_set(audio, "sync", TRUE, NULL);
    g_object_set(playbin, "video-sink", video, "audio-sink", audio, NULL);
}

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    gboolean is_fake = argc > 1 && g_str_equal(argv[1], "--fake");
    Player player = {.next_uri = argv + (is_fake ? 2 : 1)};
    if (!*player.next_uri || !(player.playbin = gst_element_factory_make("playbin3", NULL))) {
        g_printerr("usage: tallyra-gst-player [--fake] URI...\n");
        return 2;
    }
    TallyraGstObserver* observer =
        tallyra_gst_attach(player.playbin, NULL); /* the first of the three lines */
    if (is_fake)
        use_fake_sinks(player.playbin);
    g_object_set(player.playbin, "uri", *player.next_uri++, NULL);
    g_signal_connect(player.playbin, "about-to-finish", G_CALLBACK(on_about_to_finish), &player);
    player.loop = g_main_loop_new(NULL, FALSE);
    GstBus* bus = gst_element_get_bus(player.playbin);
    gst_bus_add_watch(bus, on_message, &player);
    GIOChannel* keys = g_io_channel_unix_new(0);
    g_io_add_watch(keys, G_IO_IN | G_IO_HUP, on_key, &player);
    update_state(&player);
    g_main_loop_run(player.loop);
    gst_element_set_state(player.playbin, GST_STATE_NULL);
    tallyra_gst_detach(observer); /* the second; the third includes the header */
    gst_bus_remove_watch(bus);
    gst_object_unref(bus);
    gst_object_unref(player.playbin);
    g_main_loop_unref(player.loop);
    g_io_channel_unref(keys);
    return player.status;
}
