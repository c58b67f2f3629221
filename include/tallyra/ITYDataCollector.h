// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYDATACOLLECTOR_H
#define TALLYRA_ITYDATACOLLECTOR_H

#include "tallyra/TYContentInfo.h"
#include "tallyra/TYExport.h"
#include "tallyra/TYTypes.h"

#include <string>

/// @file
/// All that a player needs: include this header and link `-ltallyra`.
///
/// A player's calls, in order: GetTYDataCollectorInstance; SetContentInfo;
/// SendMediaEvent(TY_EVENT_START, 0, 0); further events, errors and Execute calls;
/// SendMediaEvent(TY_EVENT_STOP, 0, 0); the next content, or `delete`.

/// Takes a player's reports about one playback after the other.
///
/// Threads: all operations but the destructor may be called from any thread, also from several at
/// once. None of them waits for the network, the bus or the collection service. The destructor must
/// not run while another operation does. No operation is a cancellation point.
///
/// Processes: in a forked child of the process that made it, a collector does nothing: reports are
/// dropped, and getters return 0 or false. A child that reports makes a collector of its own.
///
/// Errors: no exception leaves an operation. What is refused is logged to the platform log and has
/// no effect. Three things fail an assertion, which ends the process unless the integrator turned
/// assertions off: a START without a URL, a changed URL during a playback, and a lack of memory.
///
/// The order of the operations is part of the calling contract: players reach them through the
/// table of virtual functions.
class TALLYRA_EXPORT ITYDataCollector {
  public:
    /// Flushes queued records and deletes the collector. Blocks at most about 4 s if the service
    /// does not answer; anything left is dropped. A service that answers slowly gets everything.
    /// In a forked child nothing is flushed, and it returns at once.
    virtual ~ITYDataCollector() {}

    /// Replaces the version of the application's package, which the library looks up by itself.
    /// @param pServiceVersion  up to 11 bytes are kept; null is logged and changes nothing
    virtual void SetServiceVersion(const char* pServiceVersion) = 0;

    /// Describes what is played next.
    ///
    /// Between START and STOP only the DRM type and the texts are taken, and the URL must be the
    /// same as before.
    /// @param pContentInfo  read before the call returns and still the player's afterwards; null
    ///                      is logged and changes nothing. A URL of more than 8,383,808 bytes is
    ///                      cut there, with an error line.
    virtual void SetContentInfo(CTYContentInfo* pContentInfo) = 0;

    /// @param duration  length of the content, in the player's own unit
    virtual void SetDuration(int duration) = 0;

    /// @param drmType  any value; only its low byte is kept
    virtual void SetDrmType(TY_DRM_TYPE drmType) = 0;

    /// @param contentType  any value; only its low byte is kept
    virtual void SetContentType(TY_CONTENT_TYPE contentType) = 0;

    /// @return the DRM type of the current content; 0 before any was set
    virtual TY_DRM_TYPE GetDrmType() = 0;

    /// @return the content type of the current content; 0 before any was set
    virtual TY_CONTENT_TYPE GetContentType() = 0;

    /// Reports an event. Before TY_EVENT_START all others are refused.
    /// @param event   any value from 0 to 255; TY_EVENT_TYPE says what the named ones do
    /// @param param1  first parameter, as TY_EVENT_TYPE says; the playback time in milliseconds
    ///                where the event has one
    /// @param param2  second parameter, as TY_EVENT_TYPE says
    virtual void SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) = 0;

    /// Reports an error. Before TY_EVENT_START it is taken only when the content has a URL.
    /// @param error  any value from 0 to 255
    virtual void SendMediaError(TY_ERROR_TYPE error) = 0;

    /// Reports a free-form record. Each code is taken at most once in 60 seconds, save in the first
    /// 10 seconds after START, when all are taken.
    /// @param code   0 to 255; anything else is refused
    /// @param value  becomes the record's first parameter
    /// @param text   becomes the record's custom information, up to 4095 bytes
    /// @return whether the record was taken
    virtual bool Execute(int code, int value, std::string text) = 0;

    /// Reads the version of this interface: 1.2.
    /// @param pMajor  filled with the major version
    /// @param pMinor  filled with the minor version
    /// @return false when a pointer is null; nothing is written then
    virtual bool GetVersion(int* pMajor, int* pMinor) = 0;
};

/// Makes a collector. Each call makes a new one, with threads of its own.
///
/// Opens a connection to the system bus on the calling thread. Where there is none the collector
/// still works and drops what it is given.
///
/// @param appId     the application's identifier; records carry up to 49 bytes of it. Null is
///                  logged, and the records carry an empty one.
/// @param playerId  which player reports
/// @return the collector; the player owns it and ends it with `delete`
TALLYRA_EXPORT ITYDataCollector* GetTYDataCollectorInstance(const char* appId,
                                                            TY_PLAYER_ID playerId);

#endif  // TALLYRA_ITYDATACOLLECTOR_H
