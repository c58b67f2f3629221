// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYPostgresSchema.h"

#include <array>
#include <cstddef>
#include <stdexcept>
#include <string>

namespace {

// One database holds the records of all devices:
//
//   devices    one row for each device
//   sources    one row for each store that a device has had, with the ids that are covered
//   contexts   the bytes that consecutive records share, whole and as columns
//   entries    one row of eleven small numbers for each record
//   playbacks  one row for each playback, with its figures, its phases and its packed records
//   refusals   how many messages were refused, by day and reason
//
// contexts and entries are partitioned by the day on which the collector stored them, so that old
// ones go by dropping a table. The context of an entry is of the same day. Playbacks stay.
//
// What is covered (see CTYCoverage) decides alone whether a record is stored: the primary key of
// entries holds for each day only. It begins with the source, so that the records of a device can
// be found. No table refers to partitions, because that would slow down dropping them.
//
// The order of columns puts 8-byte numbers first, which saves padding. Texts of contexts are
// compressed but never moved to another table: a context has about 700 bytes, most of them zero.
constexpr const char* kFirstVersion = R"sql(
CREATE TABLE devices(
    id         integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    name       text NOT NULL UNIQUE,
    first_seen timestamptz NOT NULL DEFAULT now()) WITH (fillfactor = 70);

CREATE TABLE sources(
    id      integer GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    device  integer NOT NULL REFERENCES devices(id),
    epoch   uuid NOT NULL,
    covered int8multirange NOT NULL DEFAULT '{}',
    UNIQUE(device, epoch)) WITH (fillfactor = 50);

CREATE SEQUENCE context_ids INCREMENT 1024;
CREATE TABLE contexts(
    id              bigint NOT NULL,
    day             date NOT NULL,
    device          integer NOT NULL,
    duration        integer NOT NULL,
    player_id       smallint NOT NULL,
    network_type    smallint NOT NULL,
    drm_type        smallint NOT NULL,
    content_type    smallint NOT NULL,
    playback_id     text NOT NULL,
    service_version text NOT NULL,
    service_id      text NOT NULL,
    url             text,
    channel_id      text NOT NULL,
    title           text NOT NULL,
    genre           text NOT NULL,
    custom_info     text NOT NULL,
    common          bytea NOT NULL,
    PRIMARY KEY(id, day)) PARTITION BY RANGE(day);
ALTER TABLE contexts
    ALTER playback_id SET STORAGE MAIN, ALTER service_version SET STORAGE MAIN,
    ALTER service_id SET STORAGE MAIN, ALTER url SET STORAGE MAIN,
    ALTER channel_id SET STORAGE MAIN, ALTER title SET STORAGE MAIN,
    ALTER genre SET STORAGE MAIN, ALTER custom_info SET STORAGE MAIN,
    ALTER common SET STORAGE MAIN;

CREATE TABLE entries(
    id        bigint NOT NULL,
    context   bigint NOT NULL,
    arrival   bigint NOT NULL,
    day       date NOT NULL,
    source    integer NOT NULL,
    param1    integer NOT NULL,
    param2    integer NOT NULL,
    time_sec  integer NOT NULL,
    time_nsec integer NOT NULL,
    padding   integer NOT NULL,
    event     smallint NOT NULL,
    PRIMARY KEY(source, day, id)) PARTITION BY RANGE(day);

CREATE TABLE playbacks(
    device            integer NOT NULL REFERENCES devices(id),
    playback_id       text NOT NULL,
    application       text NOT NULL,
    version           text NOT NULL,
    title             text NOT NULL,
    url               text,
    player_id         smallint NOT NULL,
    network_type      smallint NOT NULL,
    content_type      smallint NOT NULL,
    drm_type          smallint NOT NULL,
    duration_ms       integer NOT NULL,
    begin_ns          bigint NOT NULL,
    first_arrival_ns  bigint NOT NULL,
    last_arrival_ns   bigint NOT NULL,
    records           bigint NOT NULL,
    timeline_cut      boolean NOT NULL,
    ended             text,
    stop_reason       smallint NOT NULL,
    started           boolean NOT NULL,
    startup_ms        bigint,
    stalls_ms         bigint[] NOT NULL,
    unmeasured_stalls integer NOT NULL,
    seek_stalls_ms    bigint[] NOT NULL,
    switch_stalls_ms  bigint[] NOT NULL,
    seeks_ms          bigint[] NOT NULL,
    playing_ms        bigint NOT NULL,
    paused_ms         bigint NOT NULL,
    watched_media_ms  bigint NOT NULL,
    last_position_ms  bigint,
    completed         boolean,
    average_kbps      bigint,
    rendition_ms      bigint NOT NULL,
    switches          bigint,
    frames_dropped    bigint,
    frames_rendered   bigint,
    signal_dbm        bigint,
    errors            bigint NOT NULL,
    clock_steps       bigint NOT NULL,
    length_ms         bigint NOT NULL,
    phase_begins_ms   bigint[] NOT NULL,
    phase_kinds       smallint[] NOT NULL,
    phase_causes      smallint[] NOT NULL,
    timeline          bytea NOT NULL,
    PRIMARY KEY(device, playback_id));
CREATE INDEX playbacks_by_begin ON playbacks(begin_ns);

CREATE TABLE refusals(
    day      date NOT NULL,
    reason   text NOT NULL,
    messages bigint NOT NULL,
    PRIMARY KEY(day, reason));

CREATE VIEW records AS
SELECT e.id, e.arrival, d.name AS bus_name, NULL::bigint AS uid, NULL::bigint AS pid, c.player_id,
       c.network_type, c.playback_id, c.service_version, c.service_id, e.event, e.param1, e.param2,
       c.duration, c.url, 0 AS url_cut, c.drm_type, c.content_type, c.channel_id, c.title, c.genre,
       c.custom_info, e.time_sec, e.time_nsec, e.padding, c.common, NULL::bigint AS playback,
       d.name AS device, s.epoch, e.day
FROM entries e JOIN contexts c ON c.id = e.context AND c.day = e.day
     JOIN sources s ON s.id = e.source JOIN devices d ON d.id = s.device;

CREATE VIEW phases AS
SELECT d.name AS device, p.playback_id, x.number, x.begin_ms,
       coalesce(lead(x.begin_ms) OVER (PARTITION BY p.device, p.playback_id ORDER BY x.number),
                p.length_ms) - x.begin_ms AS length_ms,
       x.kind, (ARRAY['start-up', 'playing', 'paused', 'seeking', 'stalled', 'unknown'])[x.kind + 1]
       AS name, x.cause
FROM playbacks p JOIN devices d ON d.id = p.device
     CROSS JOIN LATERAL unnest(p.phase_begins_ms, p.phase_kinds, p.phase_causes) WITH ORDINALITY
         AS x(begin_ms, kind, cause, number);
)sql";

// kMigrations[n] upgrades schema version n to n + 1.
constexpr std::array kMigrations = {kFirstVersion};
constexpr int kVersion = static_cast<int>(kMigrations.size());

// 0 if there are no tables.
int VersionOf(pqxx::transaction_base& transaction) {
    if (transaction.exec1("SELECT to_regclass('tallyra_schema') IS NOT NULL")[0].as<bool>()) {
        return transaction.exec1("SELECT max(version) FROM tallyra_schema")[0].as<int>(0);
    }
    return 0;
}

std::string Describe(int version) {
    return "the database has schema version " + std::to_string(version) +
           ", this program supports " + std::to_string(kVersion);
}

void Upgrade(pqxx::transaction_base& transaction, int version) {
    if (version == 0) {
        transaction.exec0(
            "CREATE TABLE tallyra_schema(version integer PRIMARY KEY, "
            "since timestamptz NOT NULL DEFAULT now())");
    }
    transaction.exec(kMigrations.at(static_cast<std::size_t>(version)));
    transaction.exec_params0("INSERT INTO tallyra_schema(version) VALUES($1)", version + 1);
}

}  // namespace

void MigratePostgresSchema(pqxx::connection& connection) {
    pqxx::work work(connection);
    work.exec_params("SELECT pg_advisory_xact_lock($1, $2)", kAdvisorySpace,
                     static_cast<int>(TYAdvisoryLock::SCHEMA));
    const int found = VersionOf(work);
    if (found > kVersion) {
        throw std::runtime_error(Describe(found));
    }
    for (int version = found; version < kVersion; ++version) {
        Upgrade(work, version);
    }
    work.commit();
}

void CheckPostgresSchema(pqxx::transaction_base& transaction) {
    const int found = VersionOf(transaction);
    if (found == 0) {
        throw std::runtime_error("the database has no tables of tallyra-collect");
    }
    if (found != kVersion) {
        throw std::runtime_error(
            Describe(found) +
            (found < kVersion ? ": start tallyra-collect once to upgrade it" : ""));
    }
}
