// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_ITYDATACOLLECTOR_H
#define TALLYRA_ITYDATACOLLECTOR_H

#include "tallyra/TYContentInfo.h"
#include "tallyra/TYConventions.h"
#include "tallyra/TYExport.h"
#include "tallyra/TYTypes.h"

#include <string>

/// @file
/// The player's interface: include this header and link with `-ltallyra`.
///
/// A player makes its calls in this order:
///  1. GetTYDataCollectorInstance
///  2. SetContentInfo
///  3. SendMediaEvent(TY_EVENT_START, 0, 0)
///  4. further events, errors and Execute calls
///  5. SendMediaEvent(TY_EVENT_STOP, 0, 0)
///  6. SetContentInfo for the next content, or `delete`
///
/// A player runs with every `libtallyra.so.1` whose interface has the version that the player was
/// compiled with, or a later one:
///  - CTYContentInfo is frozen, since players allocate it: its members keep their order, types and
///    sizes, and none is added.
///  - Functions of ITYDataCollector keep their place and their types. New ones are appended.
///  - Enumerators keep their values, and exported symbols stay.
///  - Appended functions, further enumerators and further symbols make a new minor version. A
///    player that also runs with older libraries asks GetVersion before it calls such a function.
///  - Everything else would make a new major version and `libtallyra.so.2`.

/// Collects what one player reports about its playbacks, one playback at a time.
///
/// Threads: every function except the destructor may be called from any thread, and several threads
/// may call at the same time. None of these functions waits for the network, the bus or the
/// collection service. The destructor must not run while another call is in progress.
/// pthread_cancel takes effect only after a call has returned.
///
/// Collection: the device and the collection service can switch collection off. Reports are then
/// dropped, and Execute returns false. A collector that was switched off delivers nothing more,
/// even if the device switches collection on again; make a new collector then.
///
/// Fork: in a forked child, a collector made by the parent does nothing. Reports are dropped, and
/// functions with a result return 0 or false. A child that wants to report makes its own collector.
///
/// Errors: no function throws. A call with an invalid argument, or at a time when it is not
/// allowed, is logged to the platform log and has no effect. Three errors fail an assertion, which
/// aborts the process: a START without a URL, a changed URL during a playback, and an allocation
/// failure. A library that was built without assertions continues.
///
/// Players call through the virtual function table, so the order of the functions is part of the
/// binary interface.
class TALLYRA_EXPORT ITYDataCollector {
  public:
    /// Flushes queued records and deletes the collector. Blocks at most about 4 s if the service
    /// does not answer; anything left is dropped. If the service answers slowly, blocks until it
    /// has received every record. In a forked child the destructor returns at once and flushes
    /// nothing.
    ///
    /// Threads: any, once every other call has returned.
    virtual ~ITYDataCollector() {}

    /// Sets the version of the application's package. Without this call, records carry the version
    /// that the library looks up when the collector is made. Threads: any.
    /// @param pServiceVersion  version text, copied before the call returns. Records carry its
    ///                         first 11 bytes. Null is logged and ignored.
    virtual void SetServiceVersion(const char* pServiceVersion) = 0;

    /// Describes the content that is played next. Call it before each START. Threads: any, but no
    /// other thread may use the description during the call.
    ///
    /// Between START and STOP, the call updates only the DRM type, the channel, the title, the
    /// genre and the custom information. The URL must stay the same: a changed URL fails an
    /// assertion. Do not add or remove a title either, because without a title the library shortens
    /// the URL; see CTYContentInfo.
    /// @param pContentInfo  copied before the call returns; the player keeps ownership. Null is
    ///                      logged and ignored. A URL longer than 8,383,808 bytes is cut to that
    ///                      length, and the cut is logged.
    virtual void SetContentInfo(CTYContentInfo* pContentInfo) = 0;

    /// Sets the duration for the records that follow. The next SetContentInfo outside a playback
    /// replaces it. Threads: any.
    /// @param duration  length of the content, in a unit of the player's choice
    virtual void SetDuration(int duration) = 0;

    /// Sets the DRM type for the records that follow. The next SetContentInfo replaces it.
    /// Threads: any.
    /// @param drmType  any value; only the low byte is kept
    virtual void SetDrmType(TY_DRM_TYPE drmType) = 0;

    /// Sets the content type for the records that follow. The next SetContentInfo outside a
    /// playback replaces it. Threads: any.
    /// @param contentType  any value; only the low byte is kept
    virtual void SetContentType(TY_CONTENT_TYPE contentType) = 0;

    /// Reads the DRM type. Threads: any.
    /// @return the DRM type of the current content; 0 until SetContentInfo or SetDrmType sets one
    virtual TY_DRM_TYPE GetDrmType() = 0;

    /// Reads the content type. Threads: any.
    /// @return the content type of the current content; 0 until SetContentInfo or SetContentType
    ///         sets one
    virtual TY_CONTENT_TYPE GetContentType() = 0;

    /// Reports an event. Outside a playback every event except TY_EVENT_START is logged and
    /// dropped. Threads: any.
    ///
    /// On Wi-Fi, a call with TY_EVENT_BUFFERING_START reads the signal strength from the platform
    /// before it returns.
    /// @param event   0 to 255; TY_EVENT_TYPE describes the named values. Of any other value only
    ///                the low byte is recorded.
    /// @param param1  first parameter, as described in TY_EVENT_TYPE
    /// @param param2  second parameter, as described in TY_EVENT_TYPE
    virtual void SendMediaEvent(TY_EVENT_TYPE event, int param1, int param2) = 0;

    /// Reports an error. An error outside a playback is recorded only if SetContentInfo was called
    /// before. Threads: any.
    /// @param error  0 to 255; of any other value only the low byte is recorded
    virtual void SendMediaError(TY_ERROR_TYPE error) = 0;

    /// Records a code, a number and a text of the player's choice. Outside a playback the call is
    /// logged and refused. Threads: any.
    ///
    /// In the first 10 seconds after START every call is accepted. After that, each code is
    /// accepted at most once in 60 seconds.
    /// @param code   0 to 255; a call with any other code is logged and refused
    /// @param value  stored as the record's first parameter
    /// @param text   stored as the record's custom information; passed by value, so nothing of the
    ///               player's is kept. Records carry its first 4095 bytes.
    /// @return true if the record was queued; false if collection is off, the call was refused, or
    ///         the record could not be queued
    virtual bool Execute(int code, int value, std::string text) = 0;

    /// Reads the version of this interface, which is 1.2. Threads: any.
    /// @param pMajor  receives the major version; not kept
    /// @param pMinor  receives the minor version; not kept
    /// @return true; false if a pointer is null; neither version is written then
    virtual bool GetVersion(int* pMajor, int* pMinor) = 0;
};

/// Makes a new collector, which has its own threads and its own bus connection.
///
/// Connects to the system bus on the calling thread; this takes at most about 3 s if the bus does
/// not answer. Without a bus connection the collector accepts all calls and drops what is reported.
/// Threads: any.
///
/// @param appId     identifier of the application, copied before the call returns. Records carry
///                  its first 49 bytes. Null is logged, and records then carry an empty identifier.
/// @param playerId  which player reports, 0 to 255; only the low byte is kept
/// @return a collector that the player owns and ends with `delete`. Null only after an allocation
///         failure in a library built without assertions.
TALLYRA_EXPORT ITYDataCollector* GetTYDataCollectorInstance(const char* appId,
                                                            TY_PLAYER_ID playerId);

#endif  // TALLYRA_ITYDATACOLLECTOR_H
