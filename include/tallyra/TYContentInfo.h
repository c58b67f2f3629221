// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONTENTINFO_H
#define TALLYRA_TYCONTENTINFO_H

#include "tallyra/TYExport.h"
#include "tallyra/TYTypes.h"

#include <cstdint>
#include <string>

/// Describes the content that a player is about to play.
///
/// Ownership: the player owns this object. ITYDataCollector::SetContentInfo copies what it needs
/// and keeps no pointer to this object. The object may live on the stack, and the player may change
/// or destroy it as soon as SetContentInfo has returned.
///
/// Threads: a plain value without locks. Only one thread may use it at a time.
///
/// Errors: no function throws. An allocation failure fails an assertion, as it does in
/// ITYDataCollector; without assertions the text that could not be copied keeps its old value.
///
/// Texts should be UTF-8. Invalid bytes in a URL are replaced by U+FFFD; the other texts are
/// recorded unchanged. A text ends at its first NUL. Records carry a limited number of bytes of
/// each text, as the setters say; the rest is cut off.
class CTYContentInfo {
  public:
    /// Copies the URL and sets the start time. Every other field keeps its default.
    /// @param url        URL or path of the content. Null counts as an empty URL. If no title is
    ///                   set, records carry only the path of the URL: without scheme, host and
    ///                   query. A URL with a host but no path keeps its host.
    /// @param startTime  position at which the playback starts, in a unit of the player's choice.
    ///                   The next START record carries it unchanged as its first parameter. A
    ///                   second START without another SetContentInfo carries -1.
    TALLYRA_EXPORT CTYContentInfo(std::string* url, unsigned int startTime);

    /// Frees the texts.
    TALLYRA_EXPORT ~CTYContentInfo();

    CTYContentInfo(const CTYContentInfo&) = default;
    CTYContentInfo& operator=(const CTYContentInfo&) = default;

    /// @return the URL given to the constructor. The references that this and the following getters
    ///         return are valid as long as this object exists.
    TALLYRA_EXPORT const std::string& GetURL() const;
    /// @return the channel identifier, empty until set
    TALLYRA_EXPORT const std::string& GetChannelID() const;
    /// @return the title, empty until set
    TALLYRA_EXPORT const std::string& GetTitle() const;
    /// @return the genre, empty until set
    TALLYRA_EXPORT const std::string& GetGenre() const;
    /// @return the custom information, empty until set
    TALLYRA_EXPORT const std::string& GetCustomInfo() const;
    /// @return always an empty text; see SetCustomData
    TALLYRA_EXPORT const std::string& GetCustomData() const;
    /// @return the duration, 0 until set
    TALLYRA_EXPORT int GetDuration() const;
    /// @return the start time given to the constructor
    TALLYRA_EXPORT int GetStartTime() const;
    /// @return the DRM type, TY_DRM_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_DRM_TYPE GetDrmType() const;
    /// @return the content type, TY_CONTENT_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_CONTENT_TYPE GetContentType() const;

    /// Sets the channel.
    /// @param channelID  identifier of the channel; records carry its first 255 bytes
    TALLYRA_EXPORT void SetChannelID(const std::string& channelID);
    /// Sets the title.
    /// @param title  title as shown to viewers; records carry its first 255 bytes
    TALLYRA_EXPORT void SetTitle(const std::string& title);
    /// Sets the genre.
    /// @param genre  the genre; records carry its first 67 bytes
    TALLYRA_EXPORT void SetGenre(const std::string& genre);
    /// Sets the custom information.
    /// @param customInfo  text of the player's choice; records carry its first 4095 bytes
    TALLYRA_EXPORT void SetCustomInfo(const std::string& customInfo);
    /// Does nothing. Custom data is not collected; the function exists only for players that
    /// already call it.
    TALLYRA_EXPORT void SetCustomData(const std::string& key, const std::string& value);
    /// Sets the duration.
    /// @param duration  length of the content; 0 if unknown. The library passes it on. By
    ///                  convention milliseconds: see TYConventions.h.
    TALLYRA_EXPORT void SetDuration(int duration);
    /// Sets the DRM type.
    /// @param drmType  any value; only the low byte is kept
    TALLYRA_EXPORT void SetDrmType(TY_DRM_TYPE drmType);
    /// Sets the content type.
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
