// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "tallyra/TYContentInfo.h"

#include "TYLog.h"

#include <new>

#define TY_LOG_TAG TY_TAG

namespace {

// The player's code may be built without exceptions, so none may leave a setter.
void Assign(std::string& to, const std::string& from) {
    try {
        to = from;
    } catch (const std::bad_alloc& error) {
        TY_BAD_ALLOC(error);
    }
}

}  // namespace

CTYContentInfo::CTYContentInfo(std::string* url, unsigned int startTime)
    : m_nDuration(0),
      m_nContentType(TY_CONTENT_NOT_SET),
      m_nStartTime(static_cast<int>(startTime)),
      m_nDrmType(TY_DRM_NOT_SET) {
    if (url != nullptr) {
        Assign(m_strUrl, *url);
    }
}

CTYContentInfo::~CTYContentInfo() = default;

const std::string& CTYContentInfo::GetURL() const {
    return m_strUrl;
}

const std::string& CTYContentInfo::GetChannelID() const {
    return m_strChannelID;
}

const std::string& CTYContentInfo::GetTitle() const {
    return m_strTitle;
}

const std::string& CTYContentInfo::GetGenre() const {
    return m_strGenre;
}

const std::string& CTYContentInfo::GetCustomInfo() const {
    return m_strCustomInfo;
}

const std::string& CTYContentInfo::GetCustomData() const {
    return m_strCustomData;
}

int CTYContentInfo::GetDuration() const {
    return m_nDuration;
}

int CTYContentInfo::GetStartTime() const {
    return m_nStartTime;
}

TY_DRM_TYPE CTYContentInfo::GetDrmType() const {
    return static_cast<TY_DRM_TYPE>(m_nDrmType);
}

TY_CONTENT_TYPE CTYContentInfo::GetContentType() const {
    return static_cast<TY_CONTENT_TYPE>(m_nContentType);
}

void CTYContentInfo::SetChannelID(const std::string& channelID) {
    Assign(m_strChannelID, channelID);
}

void CTYContentInfo::SetTitle(const std::string& title) {
    Assign(m_strTitle, title);
}

void CTYContentInfo::SetGenre(const std::string& genre) {
    Assign(m_strGenre, genre);
}

void CTYContentInfo::SetCustomInfo(const std::string& customInfo) {
    Assign(m_strCustomInfo, customInfo);
}

void CTYContentInfo::SetCustomData(const std::string& /*key*/, const std::string& /*value*/) {}

void CTYContentInfo::SetDuration(int duration) {
    m_nDuration = duration;
}

void CTYContentInfo::SetDrmType(TY_DRM_TYPE drmType) {
    m_nDrmType = static_cast<std::int8_t>(drmType);
}

void CTYContentInfo::SetContentType(TY_CONTENT_TYPE contentType) {
    m_nContentType = static_cast<std::int8_t>(contentType);
}
