// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#ifndef TALLYRA_TYCONTENTINFO_H
#define TALLYRA_TYCONTENTINFO_H

#include "tallyra/TYExport.h"
#include "tallyra/TYTypes.h"

#include <cstdint>
#include <string>

/// A player's description of what it is about to play.
///
/// The player owns it. ITYDataCollector::SetContentInfo reads it and keeps no pointer to it, so it
/// may live on the stack and be changed or destroyed right afterwards.
///
/// Threads: a plain value without locks. Fill it on one thread, or guard it yourself.
///
/// Texts are bytes, best UTF-8. Records carry a bounded number of them, as each setter says; what
/// is longer is cut, and a text ends at its first NUL.
class CTYContentInfo {
  public:
    /// @param url        the content's URL or path, copied; null counts as an empty URL. A
    ///                   content without a title is recorded with the path of its URL only.
    /// @param startTime  where the playback begins. The unit is the player's own: it travels
    ///                   unchanged into the first parameter of the START record.
    TALLYRA_EXPORT CTYContentInfo(std::string* url, unsigned int startTime);

    /// Releases the texts.
    TALLYRA_EXPORT ~CTYContentInfo();

    CTYContentInfo(const CTYContentInfo&) = default;
    CTYContentInfo& operator=(const CTYContentInfo&) = default;

    /// @return the URL given to the constructor. The reference lives as long as this object, as do
    ///         those of all getters of texts.
    TALLYRA_EXPORT const std::string& GetURL() const;
    /// @return the channel identifier, empty until set
    TALLYRA_EXPORT const std::string& GetChannelID() const;
    /// @return the title, empty until set
    TALLYRA_EXPORT const std::string& GetTitle() const;
    /// @return the genre, empty until set
    TALLYRA_EXPORT const std::string& GetGenre() const;
    /// @return the custom information, empty until set
    TALLYRA_EXPORT const std::string& GetCustomInfo() const;
    /// @return always an empty text: see SetCustomData
    TALLYRA_EXPORT const std::string& GetCustomData() const;
    /// @return the duration, 0 until set
    TALLYRA_EXPORT int GetDuration() const;
    /// @return the start time given to the constructor
    TALLYRA_EXPORT int GetStartTime() const;
    /// @return the DRM type, TY_DRM_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_DRM_TYPE GetDrmType() const;
    /// @return the content type, TY_CONTENT_NOT_SET (-1) until set
    TALLYRA_EXPORT TY_CONTENT_TYPE GetContentType() const;

    /// @param channelID  identifier of the channel; records carry up to 255 bytes of it
    TALLYRA_EXPORT void SetChannelID(const std::string& channelID);
    /// @param title  a title that people know; records carry up to 255 bytes of it
    TALLYRA_EXPORT void SetTitle(const std::string& title);
    /// @param genre  the genre; records carry up to 67 bytes of it
    TALLYRA_EXPORT void SetGenre(const std::string& genre);
    /// @param customInfo  free-form text; records carry up to 4095 bytes of it
    TALLYRA_EXPORT void SetCustomInfo(const std::string& customInfo);
    /// Does nothing. Custom data was never collected; the call stays for players that make it.
    TALLYRA_EXPORT void SetCustomData(const std::string& key, const std::string& value);
    /// @param duration  length of the content, in the player's own unit; 0 when unknown
    TALLYRA_EXPORT void SetDuration(int duration);
    /// @param drmType  any value; only its low byte is kept
    TALLYRA_EXPORT void SetDrmType(TY_DRM_TYPE drmType);
    /// @param contentType  any value; only its low byte is kept
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
