// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYSchema.h"

#include "TYPhasesView.h"

#include <array>
#include <string>

namespace {

// "TYLA": marks the file as a store of this service.
constexpr std::int64_t kApplicationId = 0x54594c41;

// A record's image has 4800 bytes, and a player sends thousands of records that differ only in
// event, parameters and time. The schema stores the shared bytes once:
//
//   senders    one row for each bus connection
//   playbacks  one row for each playback of a sender, with totals, so that lists need no scan
//   contexts   the bytes that consecutive records share, whole and as columns
//   entries    one row of nine small integers for each record: a million take about 40 MB
//   runs       a range of entry ids that arrived in one batch with one context
//
// The views join entries and contexts back into whole records. entries has no index besides its
// primary key: maintaining one would cost more than inserting the row. Runs are indexed instead. To
// find the records of a playback, query records_by_playback; to find those of a time range, bound
// the entry ids by the runs of that range.
//
// The entries of a run are consecutive, and every entry belongs to exactly one run: deleting a
// playback deletes its contexts, runs and entries.
constexpr const char* kFirstVersion = R"sql(
CREATE TABLE senders(
    id            INTEGER PRIMARY KEY,
    bus           TEXT NOT NULL,
    name          TEXT NOT NULL,
    uid           INTEGER,
    pid           INTEGER,
    first_arrival INTEGER NOT NULL,
    batches       INTEGER NOT NULL DEFAULT 0,
    UNIQUE(bus, name));

CREATE TABLE playbacks(
    id            INTEGER PRIMARY KEY,
    sender        INTEGER NOT NULL REFERENCES senders(id),
    playback_id   TEXT NOT NULL,
    service_id    TEXT NOT NULL,
    context       INTEGER,
    first_arrival INTEGER NOT NULL,
    last_arrival  INTEGER NOT NULL,
    started_sec   INTEGER,
    ended_sec     INTEGER,
    records       INTEGER NOT NULL DEFAULT 0,
    watched_ms    INTEGER NOT NULL DEFAULT 0,
    startup_ms    INTEGER,
    stalls        INTEGER NOT NULL DEFAULT 0,
    stalled_ms    INTEGER NOT NULL DEFAULT 0,
    errors        INTEGER NOT NULL DEFAULT 0,
    UNIQUE(sender, playback_id));
CREATE INDEX playbacks_by_age ON playbacks(last_arrival);
CREATE INDEX playbacks_by_service ON playbacks(service_id, last_arrival);
CREATE INDEX playbacks_by_name ON playbacks(playback_id);

CREATE TABLE contexts(
    id              INTEGER PRIMARY KEY,
    playback        INTEGER NOT NULL REFERENCES playbacks(id) ON DELETE CASCADE,
    player_id       INTEGER NOT NULL,
    network_type    INTEGER NOT NULL,
    service_version TEXT NOT NULL,
    service_id      TEXT NOT NULL,
    duration        INTEGER NOT NULL,
    url             TEXT,
    drm_type        INTEGER NOT NULL,
    content_type    INTEGER NOT NULL,
    channel_id      TEXT NOT NULL,
    title           TEXT NOT NULL,
    genre           TEXT NOT NULL,
    custom_info     TEXT NOT NULL,
    common          BLOB NOT NULL);
CREATE INDEX contexts_by_playback ON contexts(playback);

CREATE TABLE entries(
    id       INTEGER PRIMARY KEY,
    context  INTEGER NOT NULL,
    arrival  INTEGER NOT NULL,
    event    INTEGER NOT NULL,
    param1   INTEGER NOT NULL,
    param2   INTEGER NOT NULL,
    time_sec INTEGER NOT NULL,
    time_nsec INTEGER NOT NULL,
    padding  INTEGER NOT NULL DEFAULT 0);

CREATE TABLE runs(
    first   INTEGER PRIMARY KEY,
    last    INTEGER NOT NULL,
    context INTEGER NOT NULL REFERENCES contexts(id) ON DELETE CASCADE,
    arrival INTEGER NOT NULL);
CREATE INDEX runs_by_context ON runs(context);
CREATE INDEX runs_by_arrival ON runs(arrival);
CREATE TRIGGER entries_go_with_their_run AFTER DELETE ON runs BEGIN
    DELETE FROM entries WHERE id BETWEEN old.first AND old.last;
END;

CREATE VIEW records AS
SELECT e.id, e.arrival, s.name AS bus_name, s.uid, s.pid, c.player_id, c.network_type,
       p.playback_id, c.service_version, c.service_id, e.event, e.param1, e.param2, c.duration,
       c.url, c.drm_type, c.content_type, c.channel_id, c.title, c.genre, c.custom_info,
       e.time_sec, e.time_nsec, e.padding, c.common, c.playback
FROM entries e JOIN contexts c ON c.id = e.context JOIN playbacks p ON p.id = c.playback
     JOIN senders s ON s.id = p.sender;

CREATE VIEW records_by_playback AS
SELECT e.id, e.arrival, s.name AS bus_name, s.uid, s.pid, c.player_id, c.network_type,
       p.playback_id, c.service_version, c.service_id, e.event, e.param1, e.param2, c.duration,
       c.url, c.drm_type, c.content_type, c.channel_id, c.title, c.genre, c.custom_info,
       e.time_sec, e.time_nsec, e.padding, c.common, c.playback
FROM senders s JOIN playbacks p ON p.sender = s.id JOIN contexts c ON c.playback = p.id
     JOIN runs r ON r.context = c.id CROSS JOIN entries e ON e.id BETWEEN r.first AND r.last;

CREATE TABLE policies(
    application TEXT PRIMARY KEY,
    value       INTEGER NOT NULL,
    changed     INTEGER NOT NULL);

CREATE TABLE losses(
    id        INTEGER PRIMARY KEY,
    at        INTEGER NOT NULL,
    reason    TEXT NOT NULL,
    playbacks INTEGER NOT NULL,
    records   INTEGER NOT NULL);
)sql";

// Version 2 adds:
//
//   store      one row: the identity of the store, and its running time when it was last saved
//   holdings   estimated bytes of the playbacks of each user: 300 for each, 40 for each record, and
//              the texts of the contexts
//   bindings   the users that may send for an application
//   recoveries the records copied from a damaged store, by application, and the entry that follows
//              the last one; only while it is being recovered
//
// runs.clock is the running time at arrival (see TYStoreClock.cpp). Older runs have 0, as if they
// had arrived at the upgrade. It increases with the id, so it needs no index.
//
// entries gets AUTOINCREMENT, so that ids of dropped entries are not given again. Copying the table
// for that would need its size in free space; but AUTOINCREMENT only concerns new rows, so changing
// the text of the table's definition is enough. SQLite documents this way for changes that do not
// alter the content of the file. Making and dropping a table creates sqlite_sequence. RESET makes
// this connection read the changed definition.
constexpr const char* kSecondVersion = R"sql(
CREATE TABLE store(
    id       INTEGER PRIMARY KEY CHECK(id = 1),
    epoch    TEXT NOT NULL,
    clock    INTEGER NOT NULL,
    boot     TEXT NOT NULL,
    boottime INTEGER NOT NULL,
    wall     INTEGER NOT NULL);
INSERT INTO store(id, epoch, clock, boot, boottime, wall)
SELECT 1, substr(hex, 1, 8) || '-' || substr(hex, 9, 4) || '-4' || substr(hex, 14, 3) || '-' ||
       substr('89ab', 1 + (random() & 3), 1) || substr(hex, 18, 3) || '-' || substr(hex, 21),
       0, '', 0, 0
FROM (SELECT lower(hex(randomblob(16))) AS hex);

ALTER TABLE playbacks ADD COLUMN uid INTEGER NOT NULL DEFAULT -1;
ALTER TABLE playbacks ADD COLUMN bytes INTEGER NOT NULL DEFAULT 0;
ALTER TABLE playbacks ADD COLUMN last_entry INTEGER NOT NULL DEFAULT 0;
UPDATE playbacks SET
    uid = coalesce((SELECT s.uid FROM senders s WHERE s.id = playbacks.sender), -1),
    bytes = 300 + 40 * records + coalesce(
        (SELECT sum(2 * length(c.common) + coalesce(length(CAST(c.url AS BLOB)), 0))
         FROM contexts c WHERE c.playback = playbacks.id), 0),
    last_entry = coalesce(
        (SELECT max(r.last) FROM contexts c JOIN runs r ON r.context = c.id
         WHERE c.playback = playbacks.id), 0);
CREATE INDEX playbacks_by_uid ON playbacks(uid, last_entry);
DROP INDEX playbacks_by_age;
CREATE INDEX playbacks_by_age ON playbacks(last_entry);

CREATE TABLE holdings(
    uid   INTEGER PRIMARY KEY,
    bytes INTEGER NOT NULL);
INSERT INTO holdings(uid, bytes) SELECT uid, sum(bytes) FROM playbacks GROUP BY uid;

ALTER TABLE runs ADD COLUMN clock INTEGER NOT NULL DEFAULT 0;
ALTER TABLE contexts ADD COLUMN url_cut INTEGER NOT NULL DEFAULT 0;
ALTER TABLE policies ADD COLUMN keep_queries INTEGER NOT NULL DEFAULT 0;
ALTER TABLE losses ADD COLUMN application TEXT NOT NULL DEFAULT '';
UPDATE losses SET reason = 'room' WHERE reason = 'size';

CREATE TABLE bindings(
    application TEXT NOT NULL,
    uid         INTEGER NOT NULL,
    changed     INTEGER NOT NULL,
    PRIMARY KEY(application, uid)) WITHOUT ROWID;

CREATE TABLE recoveries(
    file        TEXT NOT NULL,
    application TEXT NOT NULL,
    next        INTEGER NOT NULL,
    records     INTEGER NOT NULL,
    PRIMARY KEY(file, application)) WITHOUT ROWID;

CREATE TABLE numbered(id INTEGER PRIMARY KEY AUTOINCREMENT);
DROP TABLE numbered;
INSERT INTO sqlite_sequence(name, seq) SELECT 'entries', coalesce(max(id), 0) FROM entries;
PRAGMA writable_schema = ON;
UPDATE sqlite_schema SET sql = replace(sql, 'INTEGER PRIMARY KEY', 'INTEGER PRIMARY KEY AUTOINCREMENT')
WHERE type = 'table' AND name = 'entries';
PRAGMA writable_schema = RESET;

DROP VIEW records;
CREATE VIEW records AS
SELECT e.id, e.arrival, s.name AS bus_name, s.uid, s.pid, c.player_id, c.network_type,
       p.playback_id, c.service_version, c.service_id, e.event, e.param1, e.param2, c.duration,
       c.url, c.url_cut, c.drm_type, c.content_type, c.channel_id, c.title, c.genre,
       c.custom_info, e.time_sec, e.time_nsec, e.padding, c.common, c.playback
FROM entries e JOIN contexts c ON c.id = e.context JOIN playbacks p ON p.id = c.playback
     JOIN senders s ON s.id = p.sender;

DROP VIEW records_by_playback;
CREATE VIEW records_by_playback AS
SELECT e.id, e.arrival, s.name AS bus_name, s.uid, s.pid, c.player_id, c.network_type,
       p.playback_id, c.service_version, c.service_id, e.event, e.param1, e.param2, c.duration,
       c.url, c.url_cut, c.drm_type, c.content_type, c.channel_id, c.title, c.genre,
       c.custom_info, e.time_sec, e.time_nsec, e.padding, c.common, c.playback
FROM senders s JOIN playbacks p ON p.sender = s.id JOIN contexts c ON c.playback = p.id
     JOIN runs r ON r.context = c.id CROSS JOIN entries e ON e.id BETWEEN r.first AND r.last;
)sql";

// Version 3 adds the view phases.

// Version 4 adds:
//
//   forwarding         one row, once a forwarder has run: the collector has stored all entries up
//                      to `stored`, the forwarder has sent those up to `sent`
//   forwarding_batches the bounds of the batches that are not stored yet
//   origins            ranges of entries that were in another store before: copied from a damaged
//                      one, or collected from a device
//   coverage           ids that a collector has of each device, or that it will never get
//
// A row of origins goes with the last of its entries. Cutting it with each run would cost a write
// for each, and since ids never repeat, an id without an entry does no harm. The ranges do not
// overlap, so only the last range that begins before the run can reach into it. Both lookups search
// a primary key.
constexpr const char* kFourthVersion = R"sql(
CREATE TABLE forwarding(
    id     INTEGER PRIMARY KEY CHECK(id = 1),
    stored INTEGER NOT NULL DEFAULT 0,
    sent   INTEGER NOT NULL DEFAULT 0,
    stream TEXT NOT NULL DEFAULT '',
    day    INTEGER NOT NULL DEFAULT 0,
    bytes  INTEGER NOT NULL DEFAULT 0);

CREATE TABLE forwarding_batches(
    first    INTEGER PRIMARY KEY,
    last     INTEGER NOT NULL,
    after    INTEGER NOT NULL,
    sequence INTEGER);

CREATE TABLE origins(
    first  INTEGER PRIMARY KEY,
    last   INTEGER NOT NULL,
    device TEXT NOT NULL DEFAULT '',
    epoch  TEXT NOT NULL,
    origin INTEGER NOT NULL);

CREATE TABLE coverage(
    device TEXT NOT NULL,
    epoch  TEXT NOT NULL,
    first  INTEGER NOT NULL,
    last   INTEGER NOT NULL,
    PRIMARY KEY(device, epoch, first)) WITHOUT ROWID;

DROP TRIGGER entries_go_with_their_run;
CREATE TRIGGER entries_go_with_their_run AFTER DELETE ON runs BEGIN
    DELETE FROM entries WHERE id BETWEEN old.first AND old.last;
    DELETE FROM origins
    WHERE first BETWEEN coalesce((SELECT max(first) FROM origins WHERE first <= old.first),
                                 old.first) AND old.last AND
          NOT EXISTS (SELECT 1 FROM entries e WHERE e.id BETWEEN origins.first AND origins.last);
END;
)sql";

// kMigrations[n] upgrades schema version n to n + 1.
constexpr std::array kMigrations = {kFirstVersion, kSecondVersion, kPhasesView, kFourthVersion};

constexpr int kVersion = static_cast<int>(kMigrations.size());

int VersionOf(CTYDatabase& database) {
    return static_cast<int>(database.Number("PRAGMA user_version"));
}

// True for a file that SQLite has just created, which has no schema and no application id yet.
bool IsEmpty(CTYDatabase& database) {
    return database.Number("SELECT count(*) FROM sqlite_schema") == 0 &&
           database.Number("PRAGMA application_id") == 0 && VersionOf(database) == 0;
}

// Its text may be that of another build of this version: only released versions have their number.
bool HasOldView(CTYDatabase& database) {
    CTYStatement view(database,
                      "SELECT 1 FROM sqlite_schema WHERE name = 'phases' "
                      "AND sql = trim(?1, ';' || char(10))");
    return !view.First(kPhasesView);
}

void ReplaceView(CTYDatabase& database) {
    CTYTransaction transaction(database, "BEGIN IMMEDIATE");
    database.Execute("DROP VIEW IF EXISTS phases");
    database.Execute(kPhasesView);
    transaction.Commit();
}

void CheckOwner(CTYDatabase& database) {
    if (database.Number("PRAGMA application_id") != kApplicationId) {
        throw CTYDatabaseError(SQLITE_MISMATCH, "the database belongs to another application");
    }
    if (VersionOf(database) < 1 || VersionOf(database) > kVersion) {
        throw CTYDatabaseError(SQLITE_MISMATCH, "the database has schema version " +
                                                    std::to_string(VersionOf(database)) +
                                                    ", this program supports " +
                                                    std::to_string(kVersion));
    }
}

}  // namespace

std::int64_t ApplicationId() {
    return kApplicationId;
}

int SchemaVersion() {
    return kVersion;
}

void MigrateSchema(CTYDatabase& database, const TYBeforeUpgrade& beforeUpgrade) {
    const bool isNew = IsEmpty(database);
    if (!isNew) {
        CheckOwner(database);
    }
    if (VersionOf(database) == kVersion) {
        if (HasOldView(database)) {
            ReplaceView(database);
        }
        return;
    }
    // BEGIN IMMEDIATE writes the first page, which decides on auto_vacuum.
    CTYTransaction transaction(database, isNew ? "BEGIN" : "BEGIN IMMEDIATE");
    if (isNew) {
        // Lets the service return free pages, so that the file shrinks.
        database.Execute("PRAGMA auto_vacuum = INCREMENTAL");
    }
    // Another process may have upgraded it since.
    const int found = VersionOf(database);
    if (!isNew && found < kVersion && beforeUpgrade) {
        beforeUpgrade(found);
    }
    for (int version = found; version < kVersion; ++version) {
        database.Execute(kMigrations.at(static_cast<std::size_t>(version)));
        database.Execute(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str());
        database.Execute(("PRAGMA user_version = " + std::to_string(version + 1)).c_str());
    }
    transaction.Commit();
}

void CheckSchema(CTYDatabase& database) {
    CheckOwner(database);
    if (VersionOf(database) != kVersion) {
        throw CTYDatabaseError(
            SQLITE_MISMATCH,
            "the database has an old schema: start tallyra-service once to upgrade it");
    }
}
