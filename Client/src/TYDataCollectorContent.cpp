// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYDataCollector.h"

#include "TYBatch.h"
#include "TYHostCall.h"
#include "TYLog.h"

#include <memory>
#include <new>
#include <string>
#include <utility>

#define TY_LOG_TAG TY_TAG

void CTYDataCollector::SetServiceVersion(const char* pServiceVersion) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    if (pServiceVersion == nullptr) {
        TY_LOG_ERROR("pServiceVersion is NULL.");
        return;
    }
    CTYLock lock(m_ContentMutex);
    CopyText(m_ServiceVersion, pServiceVersion);
}

void CTYDataCollector::SetDuration(int duration) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    TY_LOG_DEBUG("[EXCUTE]");
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.duration = duration;
}

void CTYDataCollector::SetDrmType(TY_DRM_TYPE drmType) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    TY_LOG_DEBUG("[EXCUTE]");
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.drmType = static_cast<std::uint8_t>(drmType);
}

void CTYDataCollector::SetContentType(TY_CONTENT_TYPE contentType) {
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
    CTYLock lock(m_ContentMutex);
    m_ContentBlock.contentType = static_cast<std::uint8_t>(contentType);
}

TY_DRM_TYPE CTYDataCollector::GetDrmType() {
    if (!m_Process.IsCurrent()) {
        return TY_DRM_NONE;
    }
    const CTYHostCall hostCall;
    CTYLock lock(m_ContentMutex);
    return static_cast<TY_DRM_TYPE>(static_cast<std::int8_t>(m_ContentBlock.drmType));
}

TY_CONTENT_TYPE CTYDataCollector::GetContentType() {
    if (!m_Process.IsCurrent()) {
        return TY_CONTENT_VOD;
    }
    const CTYHostCall hostCall;
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
    if (!m_Process.IsCurrent()) {
        return;
    }
    const CTYHostCall hostCall;
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

std::unique_ptr<TYUrl> CTYDataCollector::MakeUrl(const CTYContentInfo& info) {
    std::string url(info.GetURL(), 0, info.GetURL().find('\0'));
    if (info.GetTitle().empty()) {
        GetPathFromUrl(&url);
    }
    if (url.size() > CTYBatch::kMaxUrlBytes) {
        TY_LOG_ERROR("URL of %zu bytes is cut to %zu", url.size(), CTYBatch::kMaxUrlBytes);
        url.resize(CTYBatch::kMaxUrlBytes);
    }
    return std::make_unique<TYUrl>(std::make_shared<const std::string>(std::move(url)));
}

void CTYDataCollector::StoreContent(CTYContentInfo& info) {
    auto pUrl = MakeUrl(info);
    const bool isNew = !IsPlaybackStarted();
    if (!isNew) {
        CheckSameUrl(**pUrl);
    }
    // Both changes under one lock, so that no record has the URL of one content and the texts of
    // another.
    CTYLock lock(m_ContentMutex);
    if (isNew) {
        StoreNewContent(pUrl, info);
    }
    StoreTexts(info);
}

void CTYDataCollector::CheckSameUrl(const std::string& url) {
    const TYUrl current = CurrentUrl();
    if (current == nullptr || *current != url) {
        TY_LOG_ERROR("[EXCUTE] error type : %d", TY_ERROR_URL_CHANGED);
        TY_ASSERT(false);
    }
}

// Returns the previous URL in pUrl, so that the caller frees it after releasing the lock.
void CTYDataCollector::StoreNewContent(std::unique_ptr<TYUrl>& pUrl, const CTYContentInfo& info) {
    m_nReferencePosition = info.GetStartTime();
    if (m_pUrl != nullptr) {
        m_ContentBlock = {};
    }
    TYUrl* const pBefore = std::exchange(m_pUrl, pUrl.release());
    pUrl.reset(pBefore);
    m_ContentBlock.contentType = static_cast<std::uint8_t>(info.GetContentType());
    m_ContentBlock.duration = info.GetDuration();
}

void CTYDataCollector::StoreTexts(const CTYContentInfo& info) {
    m_ContentBlock.drmType = static_cast<std::uint8_t>(info.GetDrmType());
    CopyText(m_ContentBlock.channelID, info.GetChannelID().c_str());
    CopyText(m_ContentBlock.title, info.GetTitle().c_str());
    CopyText(m_ContentBlock.genre, info.GetGenre().c_str());
    CopyText(m_ContentBlock.customInfo, info.GetCustomInfo().c_str());
}

TYUrl CTYDataCollector::CurrentUrl() {
    CTYLock lock(m_ContentMutex);
    return m_pUrl == nullptr ? nullptr : *m_pUrl;
}

bool CTYDataCollector::HasUrl() {
    return CurrentUrl() != nullptr;
}

// On allocation failure m_pUrl stays null; all readers handle that.
void CTYDataCollector::EnsureUrl() {
    std::unique_ptr<TYUrl> pEmpty;
    try {
        pEmpty = std::make_unique<TYUrl>(std::make_shared<const std::string>());
    } catch (const std::bad_alloc&) {
        return;
    }
    CTYLock lock(m_ContentMutex);
    if (m_pUrl == nullptr) {
        m_pUrl = pEmpty.release();
    }
}
