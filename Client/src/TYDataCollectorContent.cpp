// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataCollector.h"
#include "TYLog.h"

#include <new>
#include <utility>

#define TY_LOG_TAG TY_TAG

void CTYDataCollector::SetServiceVersion(const char* pServiceVersion) {
    if (pServiceVersion == nullptr) {
        TY_LOG_ERROR("pServiceVersion is NULL.");
        return;
    }
    CTYLock lock(m_ContentMutex);
    TYCopyText(m_ServiceVersion, pServiceVersion);
}

void CTYDataCollector::SetDuration(int duration) {
    TY_LOG_DEBUG("[EXCUTE]");
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.duration = duration;
}

void CTYDataCollector::SetDrmType(TY_DRM_TYPE drmType) {
    TY_LOG_DEBUG("[EXCUTE]");
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.drmType = static_cast<std::uint8_t>(drmType);
}

void CTYDataCollector::SetContentType(TY_CONTENT_TYPE contentType) {
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.contentType = static_cast<std::uint8_t>(contentType);
}

TY_DRM_TYPE CTYDataCollector::GetDrmType() {
    CTYLock lock(m_ContentMutex);
    return static_cast<TY_DRM_TYPE>(static_cast<std::int8_t>(m_ContentBlock.drmType));
}

TY_CONTENT_TYPE CTYDataCollector::GetContentType() {
    CTYLock lock(m_ContentMutex);
    return static_cast<TY_CONTENT_TYPE>(static_cast<std::int8_t>(m_ContentBlock.contentType));
}

void CTYDataCollector::GetPathFromUrl(std::string* pUrl) {
    const std::string& scheme = m_UrlDelimiter[0];
    std::size_t start = pUrl->find(scheme);
    if (start == std::string::npos) {
        start = 0;
    } else if (const std::size_t path = pUrl->find(m_UrlDelimiter[1], start + scheme.size());
               path != std::string::npos) {
        start = path + m_UrlDelimiter[1].size();
    }
    const std::size_t end = pUrl->find(m_UrlDelimiter[2], start);
    *pUrl = pUrl->substr(start, end == std::string::npos ? end : end - start);
}

void CTYDataCollector::SetContentInfo(CTYContentInfo* pContentInfo) {
    TY_LOG_DEBUG("[EXCUTE]");
    if (pContentInfo == nullptr) {
        TY_LOG_ERROR("pContentInfo is NULL.");
        return;
    }
    try {
        StoreContent(*pContentInfo);
    } catch (const std::bad_alloc& error) {
        EnsureUrl();
        TY_BAD_ALLOC(error);
    }
}

void CTYDataCollector::StoreContent(CTYContentInfo& info) {
    auto pUrl = std::make_unique<std::string>(info.GetURL().c_str());
    if (info.GetTitle().empty()) {
        GetPathFromUrl(pUrl.get());
    }
    const bool isNew = !IsPlaybackStarted();
    if (!isNew) {
        CheckSameUrl(*pUrl);
    }
    // In one step: no record is to have the URL of one content and the texts of another.
    CTYLock lock(m_ContentMutex);
    if (isNew) {
        StoreNewContent(std::move(pUrl), info);
    }
    StoreTexts(info);
}

void CTYDataCollector::CheckSameUrl(const std::string& url) {
    bool same = false;
    {
        CTYLock lock(m_ContentMutex);
        same = m_pUrl != nullptr && *m_pUrl == url;
    }
    if (!same) {
        TY_LOG_ERROR("[EXCUTE] error type : %d", TY_ERROR_URL_CHANGED);
        TY_ASSERT(false);
    }
}

void CTYDataCollector::StoreNewContent(std::unique_ptr<std::string> pUrl,
                                       const CTYContentInfo& info) {
    m_nReferencePosition = info.GetStartTime();
    if (m_pUrl != nullptr) {
        delete m_pUrl;
        m_ContentBlock = {};
    }
    m_pUrl = pUrl.release();
    m_ContentBlock.contentType = static_cast<std::uint8_t>(info.GetContentType());
    m_ContentBlock.duration = info.GetDuration();
}

void CTYDataCollector::StoreTexts(const CTYContentInfo& info) {
    m_ContentBlock.drmType = static_cast<std::uint8_t>(info.GetDrmType());
    TYCopyText(m_ContentBlock.channelID, info.GetChannelID().c_str());
    TYCopyText(m_ContentBlock.title, info.GetTitle().c_str());
    TYCopyText(m_ContentBlock.genre, info.GetGenre().c_str());
    TYCopyText(m_ContentBlock.customInfo, info.GetCustomInfo().c_str());
}

bool CTYDataCollector::HasUrl() {
    CTYLock lock(m_ContentMutex);
    return m_pUrl != nullptr;
}

// Without memory for a URL there stays none, which every reader of it bears.
void CTYDataCollector::EnsureUrl() {
    CTYLock lock(m_ContentMutex);
    if (m_pUrl == nullptr) {
        m_pUrl = new (std::nothrow) std::string();
    }
}
