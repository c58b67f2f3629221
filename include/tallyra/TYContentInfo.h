// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONTENTINFO_H
#define TALLYRA_TYCONTENTINFO_H

#include "tallyra/TYExport.h"
#include "tallyra/TYTypes.h"

#include <cstdint>
#include <string>

/// @file
/// The description of what is played, CTYContentInfo.

/// Describes the content that a player is about to play.
///
/// Ownership: the player owns this object. ITYDataCollector::SetContentInfo copies what it needs
/// and keeps no pointer to this object. The object may live on the stack, and the player may change
/// or destroy it as soon as SetContentInfo has returned.
///
/// Threads: a plain value without locks. Any thread may use it, but only one at a time.
///
/// Errors: no function throws. An allocation failure fails an assertion, as it does in
/// ITYDataCollector; without assertions the text that could not be copied keeps its old value.
///
/// Texts should be UTF-8. Invalid bytes in a URL are replaced by U+FFFD; the other texts are
/// recorded unchanged. A text ends at its first NUL. Records carry a limited number of bytes of
/// each text, as the setters say; the rest is cut off.
class CTYContentInfo {
  public:
    /// Copies the URL and sets the start time. Every other field keeps its default. Threads: any.
    /// @param url        URL or path of the content, copied; the caller keeps ownership. Null
    ///                   counts as an empty URL. If no title is set, records carry only the path of
    ///                   the URL: without scheme, host and query. A URL with a host but no path
    ///                   keeps its host.
    /// @param startTime  position at which the playback starts, in a unit of the player's choice.
    ///                   The next START record carries it unchanged as its first parameter. A
    ///                   second START without another SetContentInfo carries -1.
    TALLYRA_EXPORT CTYContentInfo(std::string* url, unsigned int startTime);

    /// Frees the texts. Threads: any.
    TALLYRA_EXPORT ~CTYContentInfo();

    /// Copies all fields. An allocation failure throws std::bad_alloc. Threads: any.
    /// @param other  keeps its texts; the copies have their own
    CTYContentInfo(const CTYContentInfo& other) = default;
    /// Copies all fields. An allocation failure throws std::bad_alloc. Threads: any.
    /// @param other  keeps its texts; the copies have their own
    /// @return this object
    CTYContentInfo& operator=(const CTYContentInfo& other) = default;

    /// Reads the URL. Threads: any, one at a time. This object owns the texts that the getters
    /// return. A reference is valid as long as this object exists, and shows later changes.
    /// @return the URL given to the constructor
    TALLYRA_EXPORT const std::string& GetURL() const;
    /// Reads the channel identifier. Threads: any, one at a time.
    /// @return the channel identifier, empty until set
    TALLYRA_EXPORT const std::string& GetChannelID() const;
    /// Reads the title. Threads: any, one at a time.
    /// @return the title, empty until set
    TALLYRA_EXPORT const std::string& GetTitle() const;
    /// Reads the genre. Threads: any, one at a time.
    /// @return the genre, empty until set
    TALLYRA_EXPORT const std::string& GetGenre() const;
    /// Reads the custom information. Threads: any, one at a time.
    /// @return the custom information, empty until set
    TALLYRA_EXPORT const std::string& GetCustomInfo() const;
    /// Reads the custom data. Threads: any, one at a time.
    /// @return always an empty text; see SetCustomData
    TALLYRA_EXPORT const std::string& GetCustomData() const;
    /// Reads the duration. Threads: any, one at a time.
    /// @return the duration, 0 until set
    TALLYRA_EXPORT int GetDuration() const;
    /// Reads the start time. Threads: any, one at a time.
    /// @return the start time given to the constructor
    TALLYRA_EXPORT int GetStartTime() const;
    /// Reads the DRM type. Threads: any, one at a time.
    /// @return the DRM type, TY_DRM_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_DRM_TYPE GetDrmType() const;
    /// Reads the content type. Threads: any, one at a time.
    /// @return the content type, TY_CONTENT_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_CONTENT_TYPE GetContentType() const;

    /// Sets the channel. Threads: any, one at a time.
    /// @param channelID  identifier of the channel, copied; records carry its first 255 bytes
    TALLYRA_EXPORT void SetChannelID(const std::string& channelID);
    /// Sets the title. Threads: any, one at a time.
    /// @param title  title as shown to viewers, copied; records carry its first 255 bytes
    TALLYRA_EXPORT void SetTitle(const std::string& title);
    /// Sets the genre. Threads: any, one at a time.
    /// @param genre  the genre, copied; records carry its first 67 bytes
    TALLYRA_EXPORT void SetGenre(const std::string& genre);
    /// Sets the custom information. Threads: any, one at a time.
    /// @param customInfo  text of the player's choice, copied. Records carry its first 4095 bytes.
    TALLYRA_EXPORT void SetCustomInfo(const std::string& customInfo);
    /// Does nothing. Custom data is not collected; the function exists only for players that
    /// already call it. Threads: any.
    /// @param key    ignored
    /// @param value  ignored
    TALLYRA_EXPORT void SetCustomData(const std::string& key, const std::string& value);
    /// Sets the duration. Threads: any, one at a time.
    /// @param duration  length of the content; 0 if unknown. The library passes it on. By
    ///                  convention milliseconds: see TYConventions.h.
    TALLYRA_EXPORT void SetDuration(int duration);
    /// Sets the DRM type. Threads: any, one at a time.
    /// @param drmType  any value; only the low byte is kept
    TALLYRA_EXPORT void SetDrmType(TY_DRM_TYPE drmType);
    /// Sets the content type. Threads: any, one at a time.
    /// @param contentType  any value; only the low byte is kept
    TALLYRA_EXPORT void SetContentType(TY_CONTENT_TYPE contentType);

  private:
    std::string m_strUrl;
    int m_nDuration;
    std::int8_t m_nContentType;
    int m_nStartTime;
    std::int8_t m_nDrmType;
    std::string m_strChannelID;
    std::string m_strTitle;
    std::string m_strGenre;
    std::string m_strCustomInfo;
    std::string m_strCustomData;
};

#endif  // TALLYRA_TYCONTENTINFO_H
