# shellcheck shell=bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0

# Real media through GStreamer players, for script/demo --gst.

GST_MEDIA="$BUILD/media"

# Serves the media on a free port of loopback, whose number it sets as MEDIA_URL.
start_media_server() {
    if [[ ! -f "$GST_MEDIA/made" ]]; then
        run "$ROOT/tests/gst/player/make_media.sh" "$GST_MEDIA"
        touch "$GST_MEDIA/made"
    fi
    python3 -u -m http.server --bind 127.0.0.1 --directory "$GST_MEDIA" 0 >"$RUN/media.log" 2>&1 &
    MEDIA_PID=$!
    wait_for 'the media server' "$RUN/media.log" grep -q 'port [0-9]' "$RUN/media.log"
    MEDIA_URL="http://127.0.0.1:$(sed -n 's/.* port \([0-9]*\) .*/\1/p' "$RUN/media.log")"
}

# The signal ends it.
stop_media_server() {
    stop "$MEDIA_PID" || true
}

# The observer is part of this player.
play_with_observer() {
    headline 'tallyra-gst-player plays two films without a gap'
    run "$DEMO/bin/tallyra-gst-player" --fake "$MEDIA_URL/film.mp4" "$MEDIA_URL/next.mp4" \
        </dev/null || die 'the player failed; --verbose tells more'
}

# The player knows nothing of Tallyra: the tracer attaches the observer.
play_with_tracer() {
    headline 'gst-play-1.0, an unmodified player, plays a stream with two variants'
    GST_TRACERS="tallyra(application=$PLAYER_ID)" GST_PLUGIN_PATH="$DEMO/lib/gstreamer-1.0" \
        run gst-play-1.0 --no-interactive --videosink='fakesink sync=true' \
        --audiosink='fakesink sync=true' "$MEDIA_URL/hls/master.m3u8" </dev/null ||
        die 'gst-play-1.0 failed; --verbose tells more'
}
