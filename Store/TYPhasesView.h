// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYPHASESVIEW_H
#define TALLYRA_TYPHASESVIEW_H

// The view `phases`: what AnalyzePlayback says about each playback, for people who read the store
// with sqlite3. TYTimeline.cpp explains the rules; a test compares both.
//
// Ids increase with the records and offsets never decrease, so "the last SEEK" is max(id) of the
// SEEKs so far, and its offset is the highest of theirs. Every window is partitioned by playback:
// SQLite then applies WHERE playback = ... to the innermost query. For that, no subquery is used
// twice. SQLite copies every row for every window, so each subquery passes on only what is needed,
// and records that change nothing are left out early.
inline constexpr const char* kPhasesView = R"sql(
CREATE VIEW phases AS
WITH
-- What the rules ask of a record.
marked AS (
SELECT c.playback, e.id, e.event, e.param1, e.param2,
       e.time_sec * 1000 + e.time_nsec / 1000000 AS time,
       e.event = 20 AND e.param2 >= 180000 AS is_beat,
       e.event IN (8, 204) OR e.event = 20 AND e.param2 >= 180000 AS is_position
FROM playbacks p JOIN contexts c ON c.playback = p.id JOIN runs r ON r.context = c.id
     CROSS JOIN entries e ON e.id BETWEEN r.first AND r.last
WHERE p.playback_id <> ''),
-- The time since the record before, and where the playback begins and ends.
timed AS (
SELECT *, time - lag(time, 1, time) OVER each AS passed,
       first_value(event) OVER each = 1 AS has_start,
       lag(id) OVER each IS NULL OR lead(id) OVER each IS NULL AS is_end,
       min(iif(is_position, id, NULL)) OVER (PARTITION BY playback) AS first_position,
       min(iif(event = 2, id, NULL)) OVER (PARTITION BY playback) AS first_stop
FROM marked
WINDOW each AS (PARTITION BY playback ORDER BY id)),
-- Milliseconds since the first record. Nothing counts after STOP.
placed AS (
SELECT playback, id, event, param1, param2, is_beat, is_position, has_start, is_end,
       coalesce(first_position < first_stop, first_position IS NOT NULL) AS has_positions,
       sum(iif(passed BETWEEN 0 AND 86400000, passed, 0)) OVER
           (PARTITION BY playback ORDER BY id) AS at
FROM timed
WHERE first_stop IS NULL OR id <= first_stop),
-- The last record of each kind. From here on only records that change a state, and both ends.
followed AS (
SELECT playback, id, event, param1, param2, is_beat, is_position, has_start, has_positions, at,
       NOT has_start OR max(is_position OR event = 6) OVER each AS rendered,
       max(iif(event = 3, id, 0)) OVER each > max(iif(event = 7 OR is_position, id, 0)) OVER each
           AS paused,
       max(iif(event = 4, id, 0)) OVER each AS last_stall,
       max(iif(event = 9, id, 0)) OVER each AS last_seek,
       max(iif(event = 10, id, 0)) OVER each AS last_complete,
       event = 5 OR is_beat AND at - max(iif(event = 4, at, 0)) OVER each > 9000 AS ends_stall,
       is_beat AND at - max(iif(event = 9, at, 0)) OVER each > 9000 AS forgets_seek,
       max(iif(event = 4, id, 0)) OVER (PARTITION BY playback) AS max_stall,
       max(at) OVER (PARTITION BY playback) AS end_at
FROM placed
WHERE is_end OR is_position OR event BETWEEN 1 AND 10
WINDOW each AS (PARTITION BY playback ORDER BY id)),
-- Whether a stall is open after a record.
stalled AS (
SELECT *, last_stall > max(iif(ends_stall, id, 0)) OVER (PARTITION BY playback ORDER BY id)
          AS is_stalled
FROM followed),
-- Whether a seek is over after a record: 1, or 2 if its SEEK_COMPLETE is missing.
closed AS (
SELECT playback, id, event, param1, param2, has_start, at, rendered, paused, last_stall, max_stall,
       end_at, ends_stall, is_stalled,
       CASE WHEN last_complete > last_seek AND (paused OR NOT has_positions OR
                 (is_position OR event IN (5, 6)) AND NOT is_stalled) THEN 1
            WHEN forgets_seek AND last_seek > last_complete THEN 2 ELSE 0 END AS closes
FROM stalled),
-- Each record that closes a seek is the last one of a part.
parted AS (
SELECT *, sum(closes > 0) OVER (PARTITION BY playback ORDER BY id) - (closes > 0) AS part
FROM closed),
-- The seek of the part, and how the part ends.
sought AS (
SELECT playback, id, event, param1, param2, has_start, at, rendered, paused, last_stall, max_stall,
       end_at, ends_stall, is_stalled, closes, max(closes) OVER part AS part_end,
       min(iif(event = 9 AND rendered, id, NULL)) OVER part AS seek
FROM parted
WINDOW part AS (PARTITION BY playback, part)),
-- What each stall's end says: 8 * id of the end + the cause, or + 7 if BUFFERING_END is missing.
stated AS (
SELECT playback, id, at, end_at, last_stall, max_stall, seek, part_end,
       CASE WHEN event = 2 THEN -1 WHEN NOT rendered THEN 0 WHEN is_stalled AND NOT paused THEN 4
            WHEN seek <= id AND NOT closes THEN 3 WHEN paused THEN 2 ELSE 1 END AS state,
       min(CASE WHEN event = 5 THEN 8 * id + iif(param2 BETWEEN 2 AND 4, param2, 0)
                WHEN ends_stall THEN 8 * id + 7 END) OVER stall AS stall_end,
       max(CASE WHEN event <> 4 THEN 0
                WHEN NOT rendered OR NOT has_start AND param1 = -1 THEN 1
                WHEN seek <= id AND NOT closes THEN 2 ELSE 3 END) OVER stall AS likely_cause
FROM sought
WINDOW stall AS (PARTITION BY playback, last_stall)),
opened AS (
SELECT playback, id, at, end_at, state, part_end, likely_cause,
       iif(stall_end IS NULL, iif(last_stall < max_stall, 7, 0), stall_end & 7) AS end_says,
       CASE state WHEN 4 THEN last_stall WHEN 3 THEN seek ELSE 0 END AS opener
FROM stated),
-- Equal neighbours are one phase.
joined AS (
SELECT *, state IS NOT lag(state) OVER each OR opener IS NOT lag(opener) OVER each AS is_first
FROM opened
WINDOW each AS (PARTITION BY playback ORDER BY id)),
phased AS (
SELECT playback, id, at, opener,
       lead(at, 1, end_at) OVER (PARTITION BY playback ORDER BY id) AS until,
       iif(state = 4 AND end_says = 7 OR state = 3 AND part_end = 2, 5, state) AS kind,
       iif(state = 4 AND end_says < 7, coalesce(nullif(end_says, 0), likely_cause), 0) AS cause
FROM joined WHERE is_first)
SELECT playback, id AS first_entry, at AS begin_ms, until - at AS length_ms, kind,
       CASE kind WHEN 0 THEN 'start-up' WHEN 1 THEN 'playing' WHEN 2 THEN 'paused'
                 WHEN 3 THEN 'seeking' WHEN 4 THEN 'stalled' ELSE 'unknown' END AS name,
       cause, opener
FROM phased WHERE kind >= 0;
)sql";

#endif  // TALLYRA_TYPHASESVIEW_H
