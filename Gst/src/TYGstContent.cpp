// Copyright 2026 The Tallyra authors
// SPDX-License-Identifier: Apache-2.0

#include "TYGstContent.h"

#include "TYPublicText.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <string_view>
#include <utility>

namespace {

// Descriptions of contents that never start are not kept for ever.
constexpr std::size_t kMostDescriptions = 64;

constexpr const char* kUnknownUri = "uri:unknown";

struct DrmSystem {
    std::string_view id;
    TY_DRM_TYPE type;
};

constexpr std::array kDrmSystems = {
    DrmSystem{"9a04f079-9840-4286-ab92-e65be0885f95", TY_DRM_PLAYREADY},
    DrmSystem{"edef8ba9-79d6-4ace-a3c8-27dcd51d21ed", TY_DRM_WIDEVINE},
    DrmSystem{"e2719d58-a985-b3c9-781a-b030af78d30e", TY_DRM_CLEARKEY},
    DrmSystem{"1077efec-c0b2-4d02-ace3-3c1e52e2fb4b", TY_DRM_CLEARKEY},
};

int DrmTypeOf(const std::string& systemId) {
    const auto isSame = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == b;
    };
    const auto found = std::ranges::find_if(kDrmSystems, [&](const DrmSystem& each) {
        return std::ranges::equal(systemId, each.id, isSame);
    });
    return found == kDrmSystems.end() ? TY_DRM_OTHER : found->type;
}

const std::string& FirstNonEmpty(const std::string& first, const std::string& second) {
    return first.empty() ? second : first;
}

// A percent sign that no two hexadecimal digits follow stays as it is.
std::string Unescaped(std::string_view text) {
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char value = 0;
        if (text[i] == '%' && i + 2 < text.size()) {
            const char* pEnd = text.data() + i + 3;
            const auto [pStopped, error] = std::from_chars(text.data() + i + 1, pEnd, value, 16);
            if (error == std::errc() && pStopped == pEnd && value >= ' ') {
                plain.push_back(static_cast<char>(value));
                i += 2;
                continue;
            }
        }
        plain.push_back(text[i]);
    }
    return plain;
}

// GStreamer escapes what an application did not.
bool IsSameUri(const std::string& first, const std::string& second) {
    return first == second || (!first.empty() && Unescaped(first) == Unescaped(second));
}

std::string LastPartOf(const std::string& uri) {
    const std::string_view all(uri);
    const std::string_view path = all.substr(0, all.find_last_not_of('/') + 1);
    const std::string last = Unescaped(path.substr(path.find_last_of('/') + 1));
    return last.empty() ? uri : last;
}

}  // namespace

void CTYGstContent::Forget() {
    m_strTagTitle.clear();
    m_strTagGenre.clear();
    m_nStreamDrm = kGstUnknown;
}

void CTYGstContent::Begin(const std::string& uri, int startTime) {
    m_strUri = uri;
    m_nStartTime = startTime;
    m_nStreamDuration = 0;
    m_bFedLive = m_bAdaptive = false;
    m_Described.reset();
    const auto isSame = [&uri](const TYDescription& each) { return IsSameUri(each.uri, uri); };
    auto described = std::ranges::find_if(m_Waiting, isSame);
    if (described == m_Waiting.end()) {
        described = std::ranges::find(m_Waiting, std::string(), &TYDescription::uri);
    }
    if (described != m_Waiting.end()) {
        m_Described = std::move(*described);
        m_Waiting.erase(described);
    }
    m_bUnderWay = true;
    m_nSentDuration = GetDuration();
    m_nSentType = ContentType();
    SendContentInfo();
}

void CTYGstContent::Describe(const TYDescription& description) {
    if (m_bUnderWay && (description.uri.empty() || IsSameUri(description.uri, m_strUri))) {
        m_Described = description;
        SendContentInfo();
        SendChanges();
        return;
    }
    std::erase_if(m_Waiting,
                  [&](const TYDescription& each) { return each.uri == description.uri; });
    if (m_Waiting.size() == kMostDescriptions) {
        m_Waiting.erase(m_Waiting.begin());
    }
    m_Waiting.push_back(description);
}

void CTYGstContent::SetTags(const TYTags& tags) {
    const std::string title = Title();
    const std::string genre = m_strTagGenre;
    m_strTagTitle = FirstNonEmpty(tags.title, m_strTagTitle);
    m_strTagGenre = FirstNonEmpty(tags.genre, m_strTagGenre);
    if (m_bUnderWay && (Title() != title || m_strTagGenre != genre)) {
        SendContentInfo();
    }
}

void CTYGstContent::SetProtection(const TYProtection& protection) {
    // A stream has one event for each system that has its keys. The first known one is reported.
    if (m_nStreamDrm == kGstUnknown || m_nStreamDrm == TY_DRM_OTHER) {
        m_nStreamDrm = DrmTypeOf(protection.systemId);
        SendChanges();
    }
}

void CTYGstContent::SetSample(const TYSample& sample) {
    if (sample.isAsked) {
        // A query that failed takes back nothing.
        if (sample.isLive || sample.duration > 0) {
            m_bFedLive = sample.isLive;
            m_nStreamDuration = sample.isLive ? 0 : sample.duration;
        }
        m_bAdaptive = sample.isAdaptive;
        SendChanges();
    }
}

int CTYGstContent::GetDuration() const {
    return Described().duration != kGstUnknown ? Described().duration : m_nStreamDuration;
}

const TYDescription& CTYGstContent::Described() const {
    static const TYDescription kNone;
    return m_Described ? *m_Described : kNone;
}

std::string CTYGstContent::Title() const {
    if (!Described().title.empty()) {
        return Described().title;
    }
    return m_strTagTitle.empty() ? LastPartOf(Url()) : m_strTagTitle;
}

// The library asserts that a URL is not empty.
std::string CTYGstContent::Url() const {
    const std::string url = PublicUri(m_strUri);
    return url.empty() ? kUnknownUri : url;
}

int CTYGstContent::ContentType() const {
    if (Described().contentType != kGstUnknown) {
        return Described().contentType;
    }
    // A file may have no length, too. Of an adaptive stream, only a channel has none.
    const bool isLive = m_bFedLive || (m_bAdaptive && m_nStreamDuration == 0);
    return isLive ? TY_CONTENT_LIVE : TY_CONTENT_VOD;
}

int CTYGstContent::DrmType() const {
    if (Described().drmType != kGstUnknown) {
        return Described().drmType;
    }
    return m_nStreamDrm == kGstUnknown ? TY_DRM_NONE : m_nStreamDrm;
}

void CTYGstContent::SendContentInfo() {
    std::string url = Url();
    CTYContentInfo info(&url, static_cast<unsigned>(m_nStartTime));
    info.SetTitle(Title());
    info.SetGenre(FirstNonEmpty(Described().genre, m_strTagGenre));
    info.SetChannelID(Described().channel);
    info.SetCustomInfo(Described().customInfo);
    info.SetDuration(GetDuration());
    info.SetContentType(static_cast<TY_CONTENT_TYPE>(ContentType()));
    info.SetDrmType(static_cast<TY_DRM_TYPE>(DrmType()));
    m_nSentDrm = DrmType();
    m_Collector.SetContentInfo(&info);
}

// During a playback, SetContentInfo changes neither the duration nor the content type.
void CTYGstContent::SendChanges() {
    if (!m_bUnderWay) {
        return;
    }
    if (std::exchange(m_nSentDuration, GetDuration()) != m_nSentDuration) {
        m_Collector.SetDuration(m_nSentDuration);
    }
    if (std::exchange(m_nSentType, ContentType()) != m_nSentType) {
        m_Collector.SetContentType(static_cast<TY_CONTENT_TYPE>(m_nSentType));
    }
    if (std::exchange(m_nSentDrm, DrmType()) != m_nSentDrm) {
        m_Collector.SetDrmType(static_cast<TY_DRM_TYPE>(m_nSentDrm));
    }
}
