#!/usr/bin/env bash
# Copyright 2026 The Tallyra authors
# SPDX-License-Identifier: Apache-2.0
#
# Usage: make_media.sh FOLDER
#
# Makes what the scenarios play: 30 s as HLS and as DASH, each with two variants of about 50 and 170
# kB/s and segments of 2 s; a film of 6 s, another of 4 s, and 4 s of sound, with titles.

set -euo pipefail
rm -rf "$1"
mkdir -p "$1/hls" "$1/dash"
cd "$1"

ff() {
    ffmpeg -nostdin -hide_banner -loglevel error -y "$@"
}

# picture SIZE SECONDS, then tone SECONDS: inputs that need no file
picture() {
    printf 'testsrc2=size=%s:rate=25:duration=%s' "$1" "$2"
}
tone() {
    printf 'sine=frequency=440:sample_rate=48000:duration=%s' "$1"
}

# encode FILE SIZE SECONDS RATE [OPTION...]: a key frame every 2 s, where segments begin
encode() {
    ff -f lavfi -i "$(picture "$2" "$3")" -f lavfi -i "$(tone "$3")" \
        -c:v libx264 -preset ultrafast -pix_fmt yuv420p -b:v "$4" -maxrate "$4" -bufsize "$4" \
        -g 50 -keyint_min 50 -sc_threshold 0 -c:a aac -b:a 64k -shortest "${@:5}" "$1"
}

encode small.mp4 320x180 30 300k &
encode large.mp4 640x360 30 1200k &
encode film.mp4 320x180 6 300k -metadata title='The Long Way Home' -movflags +faststart
encode next.mp4 320x180 4 300k -metadata title='The Short Way Back' -movflags +faststart
ff -f lavfi -i "$(tone 4)" -c:a libvorbis -metadata title='A Single Tone' sound.ogg
wait

# Without a delay of the multiplexer, the first frame has the time 0.
ff -i small.mp4 -i large.mp4 -map 0 -map 1 -c copy -muxdelay 0 -f hls -hls_time 2 \
    -hls_playlist_type vod -hls_segment_filename 'hls/v%v_%02d.ts' -master_pl_name master.m3u8 \
    -var_stream_map 'v:0,a:0 v:1,a:1' hls/v%v.m3u8
ff -i small.mp4 -i large.mp4 -map 0:v -map 1:v -map 0:a -c copy -f dash -seg_duration 2 \
    -use_timeline 0 -adaptation_sets 'id=0,streams=v id=1,streams=a' dash/manifest.mpd
rm small.mp4
mv large.mp4 half-minute.mp4
